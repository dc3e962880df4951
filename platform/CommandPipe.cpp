#include "platform/CommandPipe.h"

#include "platform/Root.h"

namespace vekd::platform {
namespace {

class PopenPipe : public CommandPipe {
  public:
    FILE* open(const char* commandLine) override {
        if (commandLine == nullptr) return nullptr;
        // "e": the pipe is close-on-exec, so commands started at the same time
        // by other threads do not inherit it and keep it open.
        return ::popen(rootedCommand(commandLine).c_str(), "re");
    }
    int close(FILE* stream) override { return ::pclose(stream); }
};

}  // namespace

CommandPipe& CommandPipe::real() {
    static PopenPipe pipe;
    return pipe;
}

}  // namespace vekd::platform
