#include "foundation/CommandRunner.h"

#include <android/log.h>

#include <cstring>

#include "foundation/DebugFlag.h"
#include "platform/CommandPipe.h"

namespace {
constexpr const char* kTag = "NUVIptables";
constexpr size_t kLineBufferSize = 1024;
}  // namespace

bool commandHasShellSyntax(const char* command) {
    return command != nullptr &&
           (strpbrk(command, ";|&$`<>()\\'\"") != nullptr || strpbrk(command, kOtherWhitespace) != nullptr);
}

bool isOneWord(const char* text) {
    if (text == nullptr) return true;
    if (strpbrk(text, kOtherWhitespace) != nullptr) return false;
    const char* p = text + strspn(text, " ");
    p += strcspn(p, " ");
    return p[strspn(p, " ")] == '\0';
}

int execnetd(const char* command) {
    if (command == nullptr) return -1;
    if (commandHasShellSyntax(command)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "refusing command with shell syntax: %s",
                            command);
        return -1;
    }

    char line[kLineBufferSize];
    memset(line, 0, sizeof(line));

    auto& pipe = vekd::Seam<vekd::platform::CommandPipe>::get();
    FILE* out = pipe.open(command);
    if (out == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "SEND VEK NDC COMMAND - FAIL  %s \n", command);
        return -1;
    }
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "SEND VEK NDC COMMAND - PASS  %s\n", command);
    }
    while (fgets(line, sizeof(line), out) != nullptr) {
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_INFO, kTag, " VEK EXECNETD RESP %s", line);
        }
    }
    pipe.close(out);
    return 0;
}
