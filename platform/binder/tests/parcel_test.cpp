// The flat parcel format and local binder objects, without a transport.
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "platform/binder/HostBinder.h"
#include "tests/support/TempRoot.h"

using android::Parcel;
using android::String16;

namespace {

std::vector<uint8_t> bytesOf(const Parcel& p) { return {p.data(), p.data() + p.dataSize()}; }

class ParcelTest : public ::testing::Test {
  protected:
    // writeInterfaceToken consults the thread state, which needs a process.
    void TearDown() override { vekd::binder::resetForTesting(); }
    vekd::test::TempRoot m_root;
};

TEST_F(ParcelTest, FlatBytesOfEachKindOfValueReadBack) {
    Parcel p;
    p.writeInterfaceToken(String16("vekd"));
    p.writeCString("wlan0");
    p.writeString16(String16("hi"));
    p.writeString16(String16(""));
    p.writeString16(nullptr, 0);
    p.writeString8(android::String8("abc"));
    p.writeInt32Array(2, std::array<int32_t, 2>{7, -2}.data());
    const std::vector<uint8_t> expected = {
        0x00, 0x00, 0x00, 0x80,                                  // strict-mode policy with the gather bit
        0xff, 0xff, 0xff, 0xff,                                  // no work source
        4, 0, 0, 0, 'v', 0, 'e', 0, 'k', 0, 'd', 0, 0, 0, 0, 0,  // 4 UTF-16 units, terminator, pad
        'w', 'l', 'a', 'n', '0', 0, 0, 0,                        // C string, terminator, pad
        2, 0, 0, 0, 'h', 0, 'i', 0, 0, 0, 0, 0,                  // "hi", terminator, pad
        0, 0, 0, 0, 0, 0, 0, 0,                                  // an empty string
        0xff, 0xff, 0xff, 0xff,                                  // a null string
        3, 0, 0, 0, 'a', 'b', 'c', 0,                            // 8-bit string: length, bytes, terminator
        2, 0, 0, 0, 7, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff,          // an int32 array: count, values
    };
    EXPECT_EQ(bytesOf(p), expected);
    p.setDataPosition(8);  // the token's text
    EXPECT_EQ(p.readString16(), String16("vekd"));
    EXPECT_STREQ(p.readCString(), "wlan0");
    EXPECT_EQ(p.readString16(), String16("hi"));
    EXPECT_EQ(p.readString16(), String16(""));
    String16 null16("x");
    EXPECT_EQ(p.readString16(&null16), android::UNEXPECTED_NULL);
    EXPECT_EQ(p.readString8(), android::String8("abc"));

    // appendFrom takes any range inside the source and nothing else.
    Parcel part;
    EXPECT_EQ(part.appendFrom(&p, 0, 4), android::NO_ERROR);
    EXPECT_EQ(part.appendFrom(&p, p.dataSize(), 0), android::NO_ERROR);
    EXPECT_EQ(part.appendFrom(&p, p.dataSize() - 3, 4), android::BAD_VALUE);
    EXPECT_EQ(part.appendFrom(&p, p.dataSize() + 1, 0), android::BAD_VALUE);
    EXPECT_EQ(bytesOf(part), (std::vector<uint8_t>{0, 0, 0, 0x80}));
}

TEST_F(ParcelTest, DamagedOrShortParcelsReadAsErrorsNotCrashes) {
    // A string must end before the data does, even where bytes beyond it are zero.
    Parcel cut;
    cut.writeCString("wlanabc");
    cut.setDataSize(7);
    cut.setDataPosition(4);
    EXPECT_EQ(cut.readCString(), nullptr);

    // String16 lengths that lie: huge, negative, missing terminator.
    for (int32_t length : {0x7fffffff, -5, 1}) {
        Parcel bad;
        bad.writeInt32(length);
        bad.writeInt32(0x00620061);  // "ab" where a terminator belongs
        bad.setDataPosition(0);
        size_t len = 123;
        EXPECT_EQ(bad.readString16Inplace(&len), nullptr) << length;
        EXPECT_EQ(len, 0u);
    }
    Parcel two;  // reads stop at the end, also from a position far past it
    two.writeInt64(1);
    two.setDataPosition(4);
    EXPECT_EQ(two.readInplace(8), nullptr);
    EXPECT_EQ(two.readInt64(), 0);
    two.setDataPosition(1u << 30);
    int32_t v = 99;
    EXPECT_EQ(two.readInt32(&v), android::NOT_ENOUGH_DATA);
}

TEST_F(ParcelTest, InterfaceTokenIsCheckedConsumedAndCarriesTheWorkSource) {
    android::sp<android::BBinder> binder = new android::BBinder();  // its descriptor is empty
    for (const char* token : {"", "other"}) {
        Parcel p;
        p.writeInterfaceToken(String16(token));
        p.writeInt32(10050);
        EXPECT_TRUE(p.replaceCallingWorkSourceUid(1234));
        p.setDataPosition(0);
        EXPECT_EQ(p.checkInterface(binder.get()), token == std::string()) << token;
        EXPECT_EQ(p.readInt32(), 10050) << token;
        EXPECT_EQ(p.readCallingWorkSourceUid(), 1234u) << token;
    }
    Parcel none;  // no token: no work source, nothing to check
    none.writeInt32(5);
    EXPECT_FALSE(none.replaceCallingWorkSourceUid(1));
    EXPECT_FALSE(none.checkInterface(binder.get()));

    int key = 0, object = 0;  // objects attached to a local binder are found until detached
    binder->attachObject(&key, &object, nullptr, nullptr);
    EXPECT_EQ(binder->findObject(&key), &object);
    binder->detachObject(&key);
    EXPECT_EQ(binder->findObject(&key), nullptr);
}

// Bytes that merely look like a descriptor object are data.
TEST_F(ParcelTest, DescriptorsAreReadOnlyFromTheirObjectsAndOwnedOnesAreClosed) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    std::vector<uint8_t> forged;
    {
        Parcel p;
        p.writeInt32(7);
        ASSERT_EQ(p.writeFileDescriptor(fds[0]), android::NO_ERROR);
        ASSERT_EQ(p.writeDupFileDescriptor(fds[1]), android::NO_ERROR);
        EXPECT_TRUE(p.hasFileDescriptors());
        forged = bytesOf(p);
        EXPECT_EQ(std::make_tuple(forged[4 + 4], forged[4 + 5], forged[4 + 16], forged[28 + 16]), std::make_tuple(0x7f, 0x01, 0, 1)) << "flags 0x17f; owned: the copy only";
        p.setDataPosition(0);
        EXPECT_EQ(p.readFileDescriptor(), android::BAD_TYPE) << "an int is no descriptor";
        p.setDataPosition(4);
        EXPECT_EQ(p.readFileDescriptor(), fds[0]);
        const int copy = p.readFileDescriptor();
        EXPECT_GE(copy, 0);
        EXPECT_NE(copy, fds[1]);
    }
    close(fds[1]);  // the parcel's copy is gone too: the reader sees the end
    char byte;
    EXPECT_EQ(read(fds[0], &byte, 1), 0);
    close(fds[0]);

    Parcel plain;
    plain.setData(forged.data(), forged.size());
    plain.setDataPosition(4);
    EXPECT_EQ(plain.readFileDescriptor(), android::BAD_TYPE);
    EXPECT_FALSE(plain.hasFileDescriptors());
}

}  // namespace
