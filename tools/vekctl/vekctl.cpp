// vekctl: the command-line client of the vekd control service. Written
// against the platform's binder and property APIs only, so the same source
// builds for a device; on a host those libraries honour VEKD_ROOT.
#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <cutils/properties.h>
#include <utils/String16.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr const char* kDriver = "/dev/vndbinder";
constexpr const char* kServiceName = "vekd";
constexpr const char* kDescriptor = "vekd";

enum class Kind { kInt, kText };

struct Arg {
    const char* name;
    Kind kind;
};

struct Verb {
    const char* name;
    uint32_t code;  // 0: not one of the service's own transactions
    int argCount;
    bool lastIsOptional;
    Arg args[2];
    const char* help;
};

const Verb kVerbs[] = {
    {"update-uid", 1, 2, false, {{"UID", Kind::kInt}, {"MODE", Kind::kInt}},
     "steer application UID in MODE"},
    {"remove-uid", 2, 2, false, {{"UID", Kind::kInt}, {"MODE", Kind::kInt}},
     "stop steering UID in MODE"},
    {"wlan-inet", 3, 1, false, {{"FLAG", Kind::kInt}}, "tell whether the WLAN has internet (0: no)"},
    {"iface", 4, 2, false, {{"INDEX", Kind::kInt}, {"PARAMS", Kind::kText}},
     "set the parameter text of interface slot INDEX"},
    {"iface-ready", 5, 0, false, {}, "all interface parameters are set: configure"},
    {"ping", 0, 0, false, {}, "check that the service answers"},
    {"setprop", 0, 2, false, {{"NAME", Kind::kText}, {"VALUE", Kind::kText}},
     "set a system property"},
    {"getprop", 0, 2, true, {{"NAME", Kind::kText}, {"DEFAULT", Kind::kText}},
     "print a system property, or DEFAULT when it is unset"},
    {"dump", 0, 1, true, {{"ARGS...", Kind::kText}},
     "print the daemon's report (ARGS go to the service: dump --help)"},
};

std::string synopsis(const Verb& verb) {
    std::string text = verb.name;
    for (int i = 0; i < verb.argCount; ++i) {
        const bool optional = verb.lastIsOptional && i == verb.argCount - 1;
        text += optional ? std::string(" [") + verb.args[i].name + "]"
                         : std::string(" ") + verb.args[i].name;
    }
    return text;
}

void printHelp(FILE* out) {
    fprintf(out, "usage: vekctl VERB [ARGS]\n\nVerbs:\n");
    for (const Verb& verb : kVerbs) fprintf(out, "  %-26s %s\n", synopsis(verb).c_str(), verb.help);
    fprintf(out,
            "\nExit status: 0 when the service answered 0, 1 when it cannot be reached or\n"
            "answered otherwise, 2 for a usage error.\n");
}

int usageError(const std::string& reason) {
    fprintf(stderr, "vekctl: %s (see vekctl --help)\n", reason.c_str());
    return kExitUsage;
}

bool parseInt32(const char* text, int32_t* out) {
    if (text[0] == '\0') return false;
    errno = 0;
    char* end = nullptr;
    const long long value = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < INT32_MIN || value > INT32_MAX) return false;
    *out = static_cast<int32_t>(value);
    return true;
}

const char* statusName(android::status_t status) {
    switch (status) {
        case android::UNKNOWN_TRANSACTION: return "unknown transaction";
        case android::DEAD_OBJECT: return "the service went away";
        case android::FAILED_TRANSACTION: return "the transaction failed";
        case android::PERMISSION_DENIED: return "permission denied";
        case android::BAD_VALUE: return "bad value";
        case android::BAD_TYPE: return "bad type";
        case android::NOT_ENOUGH_DATA: return "not enough data";
        case android::UNKNOWN_ERROR: return "unknown error";
        default: return strerror(-status);
    }
}

android::sp<android::IBinder> findService(const char* verb) {
    android::ProcessState::initWithDriver(kDriver);
    android::sp<android::IBinder> service =
        android::defaultServiceManager()->checkService(android::String16(kServiceName));
    if (service == nullptr) {
        fprintf(stderr, "vekctl: %s: service \"%s\" is not running on %s\n", verb, kServiceName,
                kDriver);
    }
    return service;
}

int callFailed(const char* verb, android::status_t status) {
    fprintf(stderr, "vekctl: %s: the call failed with status %d (%s)\n", verb, status,
            statusName(status));
    return kExitFailed;
}

// The service writes its report into a pipe; a thread copies it to standard
// output meanwhile, so that a report longer than the pipe holds gets through.
int dumpService(char** args, int count) {
    android::sp<android::IBinder> service = findService("dump");
    if (service == nullptr) return kExitFailed;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        fprintf(stderr, "vekctl: dump: pipe: %s\n", strerror(errno));
        return kExitFailed;
    }
    std::thread copier([readEnd = fds[0]] {
        char buf[4096];
        for (;;) {
            const ssize_t n = read(readEnd, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            fwrite(buf, 1, static_cast<size_t>(n), stdout);
        }
    });

    android::Parcel data;
    android::Parcel reply;
    data.writeFileDescriptor(fds[1]);
    data.writeInt32(count);
    for (int i = 0; i < count; ++i) data.writeString16(android::String16(args[i]));
    const android::status_t status = service->transact(android::IBinder::DUMP_TRANSACTION, data, &reply);
    // The service has closed its copy by the time it answers.
    close(fds[1]);
    copier.join();
    close(fds[0]);
    fflush(stdout);
    return status == android::NO_ERROR ? kExitOk : callFailed("dump", status);
}

int callService(const Verb& verb, const int32_t* ints, const char* text) {
    android::sp<android::IBinder> service = findService(verb.name);
    if (service == nullptr) return kExitFailed;

    android::Parcel data;
    android::Parcel reply;
    uint32_t code = verb.code;
    if (code == 0) {
        code = android::IBinder::PING_TRANSACTION;
    } else {
        data.writeInterfaceToken(android::String16(kDescriptor));
        for (int i = 0; i < verb.argCount; ++i) {
            if (verb.args[i].kind == Kind::kInt) {
                data.writeInt32(ints[i]);
            } else {
                data.writeCString(text);
            }
        }
    }

    const android::status_t status = service->transact(code, data, &reply);
    if (status != android::NO_ERROR) return callFailed(verb.name, status);
    int32_t result = 0;
    const bool hasResult = reply.readInt32(&result) == android::NO_ERROR;
    if (!hasResult && verb.code != 0) {
        fprintf(stderr, "vekctl: %s: the reply carries no result\n", verb.name);
        return kExitFailed;
    }
    if (result != 0) {
        fprintf(stderr, "vekctl: %s: the service answered %d\n", verb.name, result);
        return kExitFailed;
    }
    return kExitOk;
}

int setProperty(const char* name, const char* value) {
    if (name[0] == '\0') return usageError("setprop: the property name is empty");
    if (strlen(value) >= PROPERTY_VALUE_MAX) {
        return usageError(std::string("setprop: the value of ") + name + " is longer than " +
                          std::to_string(PROPERTY_VALUE_MAX - 1) + " bytes");
    }
    if (property_set(name, value) != 0) {
        fprintf(stderr, "vekctl: setprop: cannot set %s\n", name);
        return kExitFailed;
    }
    return kExitOk;
}

int getProperty(const char* name, const char* fallback) {
    if (name[0] == '\0') return usageError("getprop: the property name is empty");
    char value[PROPERTY_VALUE_MAX];
    property_get(name, value, fallback);
    printf("%s\n", value);
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usageError("no verb given");
    const std::string name = argv[1];
    if (name == "--help" || name == "-h") {
        printHelp(stdout);
        return kExitOk;
    }
    const Verb* verb = nullptr;
    for (const Verb& candidate : kVerbs) {
        if (name == candidate.name) verb = &candidate;
    }
    if (verb == nullptr) return usageError("unknown verb '" + name + "'");

    const int given = argc - 2;
    if (name == "dump") return dumpService(argv + 2, given);
    const int least = verb->lastIsOptional ? verb->argCount - 1 : verb->argCount;
    if (given < least || given > verb->argCount) {
        return usageError("usage: vekctl " + synopsis(*verb));
    }
    char** args = argv + 2;

    if (name == "setprop") return setProperty(args[0], args[1]);
    if (name == "getprop") return getProperty(args[0], given > 1 ? args[1] : "");

    int32_t ints[2] = {0, 0};
    const char* text = "";
    for (int i = 0; i < verb->argCount; ++i) {
        if (verb->args[i].kind == Kind::kText) {
            text = args[i];
        } else if (!parseInt32(args[i], &ints[i])) {
            return usageError(std::string(verb->name) + ": " + verb->args[i].name +
                              " must be a 32-bit integer, got '" + args[i] + "'");
        }
    }
    return callService(*verb, ints, text);
}
