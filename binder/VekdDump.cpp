// The service's dump(): the operator's report of the running daemon.
#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <sys/stat.h>
#include <utils/String8.h>

#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "binder/VekdBind.h"
#include "manager/NuvManager.h"
#include "platform/WriteToPeer.h"
#include "report/Report.h"

namespace {

// The whole report reaches its reader within this time, or it is given up.
constexpr int kDeadlineMs = 5000;

// One report at a time: a reader that never reads holds one transaction
// thread at most, for at most the deadline.
std::mutex s_oneDump;

// The report shows enrolled applications and DNS servers: root, system,
// shell and the daemon's own user (on a host, whoever started it) may read it.
bool mayReadReport(uid_t uid) { return uid == 0 || uid == 1000 || uid == 2000 || uid == getuid(); }

}  // namespace

android::status_t Vekd::dump(int fd, const android::Vector<android::String16>& args) {
    const uid_t caller = android::IPCThreadState::self()->getCallingUid();
    if (!mayReadReport(caller)) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "dump refused to uid %u", static_cast<unsigned>(caller));
        return android::PERMISSION_DENIED;
    }
    // Only what a reader is at the other end of: a file or a device could
    // take the whole report or block on it.
    struct stat st {};
    if (fstat(fd, &st) != 0 || !(S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode))) return android::BAD_VALUE;
    std::unique_lock<std::mutex> one(s_oneDump, std::try_to_lock);
    if (!one.owns_lock()) return -EBUSY;

    std::vector<std::string> words;
    for (size_t i = 0; i < args.size(); ++i) {
        const android::String8 utf8(args[i]);
        words.emplace_back(utf8.string(), utf8.bytes());
    }
    const vekd::report::DumpRequest request = vekd::report::parseDumpArgs(words);

    std::string text;
    if (request.help) {
        text = vekd::report::dumpUsage();
    } else {
        vekd::report::Snapshot snapshot;
        m_manager->snapshot(&snapshot);
        text = vekd::report::formatReport(snapshot, vekd::counters::readCounters(), request.note);
    }
    if (vekd::platform::writeToPeer(fd, text, kDeadlineMs)) return android::NO_ERROR;
    return errno == ETIMEDOUT ? android::TIMED_OUT : android::FAILED_TRANSACTION;
}
