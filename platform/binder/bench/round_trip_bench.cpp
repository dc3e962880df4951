// One transaction round trip through the socket transport: a client thread
// calls a service of the same process that answers from its pool.
#include <benchmark/benchmark.h>
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "platform/Root.h"
#include "platform/binder/HostBinder.h"

namespace {

class Adder : public android::BBinder {
  protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                 android::Parcel* reply, uint32_t flags) override {
        if (code != 1) return BBinder::onTransact(code, data, reply, flags);
        data.enforceInterface(android::String16("vekd"));
        const int32_t a = data.readInt32();
        const int32_t b = data.readInt32();
        reply->writeInt32(a + b);
        return android::NO_ERROR;
    }
};

void BM_RoundTrip(benchmark::State& state) {
    char dir[] = "/tmp/vekd-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    setenv("VEKD_ROOT", dir, 1);
    vekd::platform::reloadRootDir();
    android::ProcessState::initWithDriver("/dev/vndbinder");
    android::defaultServiceManager()->addService(android::String16("bench"), new Adder());
    android::ProcessState::self()->startThreadPool();
    android::sp<android::IBinder> binder =
        android::defaultServiceManager()->checkService(android::String16("bench"));
    if (binder == nullptr) {
        state.SkipWithError("service not reachable");
        return;
    }
    int32_t i = 0;
    for (auto _ : state) {
        android::Parcel data, reply;
        data.writeInterfaceToken(android::String16("vekd"));
        data.writeInt32(i);
        data.writeInt32(1);
        if (binder->transact(1, data, &reply) != android::NO_ERROR || reply.readInt32() != i + 1) {
            state.SkipWithError("bad answer");
            break;
        }
        ++i;
    }
    binder.clear();
    vekd::binder::resetForTesting();
    rmdir((std::string(dir) + "/dev/vndbinder").c_str());
    rmdir((std::string(dir) + "/dev").c_str());
    rmdir(dir);
}
BENCHMARK(BM_RoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
