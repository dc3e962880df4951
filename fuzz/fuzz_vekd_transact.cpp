// The control service's transactions over arbitrary parcels, run against the
// whole link manager with every platform effect replaced. An input is a
// script of up to eight transactions: a code byte, a 16-bit parcel length,
// then the parcel bytes. Each input starts from a fresh daemon state, so a
// crash replays from its input alone.
#include <binder/Parcel.h>

#include <cstdint>
#include <cstring>

#include "binder/VekdBind.h"
#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "fuzz/FuzzSupport.h"
#include "manager/NuvManager.h"
#include "rules/IptablesManager.h"
#include "stats/VekStatsImpl.h"
#include "tests/support/FakeNetlink.h"

using android::Parcel;

namespace {

struct World : vekd::fuzz::HostStandIns {
    vekd::test::FakeChangeWaiter waiter;
    vekd::fuzz::NullCommandPipe commands;
    vekd::fuzz::AbsentStatsFiles files;
};

World* world;

void resetDaemon() {
    NuvManager::resetForTesting();
    IptablesManager::resetForTesting();
    VekStatsImpl::resetForTesting();
    Parameters::resetForTesting();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    world = new World();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Sleeps and sent requests are recorded: fresh ones per input.
    vekd::test::FakeClock clock;
    vekd::test::FakeNetlink netlink;
    gDebugLogEnabled = size > 0 && (data[0] & 0x80) ? 1 : 0;
    {
        android::sp<Vekd> service = new Vekd();
        for (int n = 0; n < 8 && size >= 3; ++n) {
            // Mostly the service's own codes, now and then anything else.
            const uint8_t codeByte = data[0];
            const uint32_t code = (codeByte & 0x7f) < 120 ? 1 + (codeByte & 0x7f) % 5 : codeByte;
            size_t length = static_cast<size_t>(data[1]) | (static_cast<size_t>(data[2]) << 8);
            data += 3;
            size -= 3;
            if (length > size) length = size;

            Parcel request;
            request.setData(data, length);
            data += length;
            size -= length;
            Parcel reply;
            const android::status_t status = service->onTransact(code, request, &reply, 0);
            if (code >= IVekd::UPDATE_UID_NUV && code <= IVekd::NOTIFY_IFACE_PARAM_READY_NUV) {
                // Every transaction of the service is answered with 0.
                FUZZ_CHECK(status == android::NO_ERROR);
                reply.setDataPosition(0);
                FUZZ_CHECK(reply.dataSize() == 4 && reply.readInt32() == 0);
            }
        }
    }
    resetDaemon();
    gDebugLogEnabled = 0;
    return 0;
}
