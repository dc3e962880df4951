// The service's dump(): the operator's report of the running daemon.
#include <utils/String8.h>

#include <cerrno>

#include "binder/VekdBind.h"
#include "manager/NuvManager.h"
#include "platform/WriteToPeer.h"
#include "report/Report.h"

namespace {

// A reader that takes nothing for this long gets no more.
constexpr int kStallMs = 5000;

}  // namespace

android::status_t Vekd::dump(int fd, const android::Vector<android::String16>& args) {
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
    if (vekd::platform::writeToPeer(fd, text, kStallMs)) return android::NO_ERROR;
    return errno == ETIMEDOUT ? android::TIMED_OUT : android::FAILED_TRANSACTION;
}
