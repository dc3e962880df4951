// vekctl run as a subprocess against a stand-in vekd service published by the
// test process under a temporary VEKD_ROOT.
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/binder/HostBinder.h"
#include "tests/support/TempRoot.h"

extern char** environ;

using namespace android;

namespace {

struct Outcome {
    int exitCode = -1;
    pid_t pid = -1;
    std::string out;
    std::string err;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int lineCount(const std::string& text) {
    int lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

// What the stand-in service saw of one call.
struct Call {
    uint32_t code;
    bool tokenOk;
    std::vector<int32_t> ints;
    std::string text;
    pid_t callingPid;
};

class FakeVekd : public BBinder {
  public:
    enum class Answer { kZero, kSeven, kNoResult, kUnknownStatus };

    const String16& getInterfaceDescriptor() const override { return m_descriptor; }

    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        if (code < 1 || code > 5) return BBinder::onTransact(code, data, reply, flags);
        Call call{code, data.enforceInterface(m_descriptor), {}, "",
                  IPCThreadState::self()->getCallingPid()};
        const int ints = code <= 2 ? 2 : (code == 5 ? 0 : 1);
        for (int i = 0; i < ints; ++i) call.ints.push_back(data.readInt32());
        if (code == 4) {
            const char* text = data.readCString();
            call.text = text ? text : "<missing>";
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(call);
        switch (m_answer) {
            case Answer::kZero: reply->writeInt32(0); return NO_ERROR;
            case Answer::kSeven: reply->writeInt32(7); return NO_ERROR;
            case Answer::kNoResult: return NO_ERROR;
            case Answer::kUnknownStatus: return UNKNOWN_TRANSACTION;
        }
        return NO_ERROR;
    }

    void answer(Answer a) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_answer = a;
    }
    std::vector<Call> calls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

  private:
    const String16 m_descriptor{"vekd"};
    std::mutex m_mutex;
    std::vector<Call> m_calls;
    Answer m_answer = Answer::kZero;
};

class VekctlTest : public ::testing::Test {
  protected:
    void TearDown() override { vekd::binder::resetForTesting(); }

    void startService() {
        ProcessState::initWithDriver("/dev/vndbinder");
        m_service = new FakeVekd();
        ASSERT_EQ(defaultServiceManager()->addService(String16("vekd"), m_service), NO_ERROR);
        ProcessState::self()->startThreadPool();
    }

    Outcome vekctl(const std::vector<std::string>& args) {
        Outcome run;
        const std::string outPath = m_root.path() + "/vekctl.out";
        const std::string errPath = m_root.path() + "/vekctl.err";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::vector<char*> argv = {const_cast<char*>(VEKCTL_PATH)};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        if (posix_spawn(&run.pid, VEKCTL_PATH, &actions, nullptr, argv.data(), environ) == 0) {
            int status = 0;
            waitpid(run.pid, &status, 0);
            run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        posix_spawn_file_actions_destroy(&actions);
        run.out = slurp(outPath);
        run.err = slurp(errPath);
        return run;
    }

    vekd::test::TempRoot m_root;
    sp<FakeVekd> m_service;
};

TEST_F(VekctlTest, UsageErrorsExitWithTwoAndOneLine) {
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"frobnicate"},
        {"update-uid", "10050"},
        {"update-uid", "10050", "1", "2"},
        {"update-uid", "abc", "1"},
        {"update-uid", "10050", "1x"},
        {"wlan-inet", "4294967296"},
        {"iface", "", "wlan0"},
        {"iface-ready", "now"},
        {"getprop"},
        {"setprop", "vendor.vek.debug", std::string(92, 'x')},
    };
    for (const auto& args : bad) {
        Outcome run = vekctl(args);
        std::string shown;
        for (const auto& a : args) shown += a + " ";
        EXPECT_EQ(run.exitCode, 2) << shown;
        EXPECT_EQ(lineCount(run.err), 1) << shown << run.err;
        EXPECT_EQ(run.err.rfind("vekctl: ", 0), 0u) << run.err;
        EXPECT_TRUE(run.out.empty()) << shown;
    }
    EXPECT_NE(vekctl({"update-uid", "abc", "1"}).err.find("UID"), std::string::npos);
}

TEST_F(VekctlTest, HelpListsEveryVerb) {
    Outcome run = vekctl({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    for (const char* verb : {"update-uid UID MODE", "remove-uid UID MODE", "wlan-inet FLAG",
                             "iface INDEX PARAMS", "iface-ready", "ping", "setprop NAME VALUE",
                             "getprop NAME [DEFAULT]"}) {
        EXPECT_NE(run.out.find(verb), std::string::npos) << verb;
    }
}

TEST_F(VekctlTest, AbsentServiceIsReportedInOneLine) {
    for (const auto& args : std::vector<std::vector<std::string>>{{"ping"}, {"iface-ready"}}) {
        Outcome run = vekctl(args);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_EQ(lineCount(run.err), 1) << run.err;
        EXPECT_NE(run.err.find("service \"vekd\" is not running"), std::string::npos) << run.err;
    }
}

TEST_F(VekctlTest, VerbsSendTheirTransactions) {
    startService();
    EXPECT_EQ(vekctl({"ping"}).exitCode, 0);
    Outcome first = vekctl({"update-uid", "10050", "1"});
    EXPECT_EQ(first.exitCode, 0) << first.err;
    EXPECT_TRUE(first.err.empty()) << first.err;
    EXPECT_EQ(vekctl({"remove-uid", "10050", "-1"}).exitCode, 0);
    EXPECT_EQ(vekctl({"wlan-inet", "7"}).exitCode, 0);
    EXPECT_EQ(vekctl({"iface", "0", "wlan0,100,0,1,1,0,0x10000,8.8.8.8"}).exitCode, 0);
    EXPECT_EQ(vekctl({"iface", "1", ""}).exitCode, 0);
    EXPECT_EQ(vekctl({"iface-ready"}).exitCode, 0);

    const std::vector<Call> calls = m_service->calls();
    ASSERT_EQ(calls.size(), 6u);
    for (const Call& c : calls) EXPECT_TRUE(c.tokenOk) << c.code;
    EXPECT_EQ(calls[0].code, 1u);
    EXPECT_EQ(calls[0].ints, (std::vector<int32_t>{10050, 1}));
    EXPECT_EQ(calls[0].callingPid, first.pid);
    EXPECT_EQ(calls[1].code, 2u);
    EXPECT_EQ(calls[1].ints, (std::vector<int32_t>{10050, -1}));
    EXPECT_EQ(calls[2].code, 3u);
    EXPECT_EQ(calls[2].ints, (std::vector<int32_t>{7}));
    EXPECT_EQ(calls[3].code, 4u);
    EXPECT_EQ(calls[3].ints, (std::vector<int32_t>{0}));
    EXPECT_EQ(calls[3].text, "wlan0,100,0,1,1,0,0x10000,8.8.8.8");
    EXPECT_EQ(calls[4].ints, (std::vector<int32_t>{1}));
    EXPECT_EQ(calls[4].text, "");
    EXPECT_EQ(calls[5].code, 5u);
    EXPECT_TRUE(calls[5].ints.empty());
}

TEST_F(VekctlTest, AnythingButAZeroAnswerExitsWithOne) {
    startService();
    const std::vector<std::pair<FakeVekd::Answer, std::string>> answers = {
        {FakeVekd::Answer::kSeven, "answered 7"},
        {FakeVekd::Answer::kNoResult, "no result"},
        {FakeVekd::Answer::kUnknownStatus, "status -74"},
    };
    for (const auto& [answer, reason] : answers) {
        m_service->answer(answer);
        Outcome run = vekctl({"wlan-inet", "1"});
        EXPECT_EQ(run.exitCode, 1) << reason;
        EXPECT_EQ(lineCount(run.err), 1) << run.err;
        EXPECT_NE(run.err.find(reason), std::string::npos) << run.err;
    }
}

TEST_F(VekctlTest, PropertiesAreSetAtomicallyAndRead) {
    Outcome set = vekctl({"setprop", "vendor.vek.debug", "1"});
    EXPECT_EQ(set.exitCode, 0) << set.err;
    EXPECT_EQ(slurp(m_root.at("/dev/__properties__/vendor.vek.debug")), "1\n");
    Outcome get = vekctl({"getprop", "vendor.vek.debug"});
    EXPECT_EQ(get.exitCode, 0);
    EXPECT_EQ(get.out, "1\n");
    EXPECT_EQ(vekctl({"getprop", "vendor.vek.enabled", "0"}).out, "0\n");
    EXPECT_EQ(vekctl({"getprop", "vendor.vek.enabled"}).out, "\n");
    EXPECT_EQ(vekctl({"setprop", "bad/name", "1"}).exitCode, 1);
}

}  // namespace
