#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
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

class Described : public android::BBinder {
  public:
    const String16& getInterfaceDescriptor() const override { return m_descriptor; }
    String16 m_descriptor{"vekd"};
};

TEST_F(ParcelTest, FlatBytesOfTokenCStringAndString16) {
    Parcel token;
    token.writeInterfaceToken(String16("vekd"));
    const std::vector<uint8_t> tokenBytes = {
        0x00, 0x00, 0x00, 0x80,  // strict-mode policy with the gather bit
        0xff, 0xff, 0xff, 0xff,  // no work source
        0x04, 0x00, 0x00, 0x00,  // 4 UTF-16 units
        'v',  0,    'e',  0,    'k', 0, 'd', 0,
        0x00, 0x00, 0x00, 0x00,  // terminating unit, padding
    };
    EXPECT_EQ(bytesOf(token), tokenBytes);

    Parcel cstrings;
    cstrings.writeCString("abc");
    cstrings.writeCString("wlan0");
    cstrings.writeCString("");
    const std::vector<uint8_t> cstringBytes = {'a', 'b', 'c', 0,   'w', 'l', 'a', 'n',
                                               '0', 0,   0,   0,   0,   0,   0,   0};
    EXPECT_EQ(bytesOf(cstrings), cstringBytes);

    Parcel s16;
    s16.writeString16(String16("hi"));
    s16.writeString16(String16("abc"));
    s16.writeString16(nullptr, 0);
    const std::vector<uint8_t> s16Bytes = {
        2,    0,    0,    0,    'h', 0, 'i', 0, 0, 0, 0, 0,  // "hi" + zero unit + pad
        3,    0,    0,    0,    'a', 0, 'b', 0, 'c', 0, 0, 0,  // "abc" + zero unit
        0xff, 0xff, 0xff, 0xff,                              // a null string
    };
    EXPECT_EQ(bytesOf(s16), s16Bytes);

    Parcel ints;
    ints.writeInt32(-2);
    ints.writeInt64(0x0102030405060708LL);
    const std::vector<uint8_t> intBytes = {0xfe, 0xff, 0xff, 0xff, 8, 7, 6, 5, 4, 3, 2, 1};
    EXPECT_EQ(bytesOf(ints), intBytes);
}

TEST_F(ParcelTest, ValuesRoundTripAndPositionsFollow) {
    Parcel p;
    p.writeInt32(7);
    p.writeCString("wlan0,100,0,1,1,0,0x10000,8.8.8.8");
    p.writeString16(String16("vekd"));
    p.writeBool(true);
    p.writeUint64(1ULL << 40);
    p.writeDouble(2.5);
    p.writeUtf8AsUtf16("h\xc3\xa9");
    EXPECT_EQ(p.dataSize(), p.dataPosition());
    EXPECT_EQ(p.dataSize() % 4, 0u);

    p.setDataPosition(0);
    EXPECT_EQ(p.readInt32(), 7);
    EXPECT_STREQ(p.readCString(), "wlan0,100,0,1,1,0,0x10000,8.8.8.8");
    EXPECT_EQ(p.readString16(), String16("vekd"));
    EXPECT_TRUE(p.readBool());
    EXPECT_EQ(p.readUint64(), 1ULL << 40);
    EXPECT_EQ(p.readDouble(), 2.5);
    std::string utf8;
    EXPECT_EQ(p.readUtf8FromUtf16(&utf8), android::NO_ERROR);
    EXPECT_EQ(utf8, "h\xc3\xa9");
    EXPECT_EQ(p.dataAvail(), 0u);

    // A copy made with setData reads the same; writing after a jump past the
    // end leaves zeros, not stale memory, in the gap.
    Parcel copy;
    copy.setData(p.data(), p.dataSize());
    EXPECT_EQ(copy.compareData(p), 0);
    EXPECT_EQ(copy.readInt32(), 7);
    Parcel gap;
    gap.setDataPosition(8);
    gap.writeInt32(5);
    EXPECT_EQ(bytesOf(gap), (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0}));
}

TEST_F(ParcelTest, DamagedOrShortParcelsReadAsErrorsNotCrashes) {
    Parcel empty;
    int32_t v = 99;
    EXPECT_EQ(empty.readInt32(&v), android::NOT_ENOUGH_DATA);
    EXPECT_EQ(empty.readInt32(), 0);
    EXPECT_EQ(empty.readCString(), nullptr);
    EXPECT_EQ(empty.readString16(), String16());

    // No NUL anywhere: no string.
    Parcel unterminated;
    const uint8_t raw[] = {'a', 'b', 'c', 'd'};
    unterminated.setData(raw, sizeof(raw));
    EXPECT_EQ(unterminated.readCString(), nullptr);

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
    Parcel null16;
    null16.writeString16(nullptr, 0);
    null16.setDataPosition(0);
    String16 out("x");
    EXPECT_EQ(null16.readString16(&out), android::UNEXPECTED_NULL);

    // A position set far past the end is harmless.
    Parcel far;
    far.writeInt32(1);
    far.setDataPosition(1u << 30);
    EXPECT_EQ(far.readInt32(&v), android::NOT_ENOUGH_DATA);
    EXPECT_EQ(far.readInplace(4), nullptr);
}

TEST_F(ParcelTest, InterfaceTokenIsCheckedAndAlwaysConsumed) {
    android::sp<Described> binder = new Described();
    Parcel good;
    good.writeInterfaceToken(String16("vekd"));
    good.writeInt32(10050);
    good.setDataPosition(0);
    EXPECT_TRUE(good.checkInterface(binder.get()));
    EXPECT_EQ(good.readInt32(), 10050);
    EXPECT_EQ(static_cast<int32_t>(good.readCallingWorkSourceUid()), -1);

    Parcel wrong;
    wrong.writeInterfaceToken(String16("other"));
    wrong.writeInt32(10051);
    wrong.setDataPosition(0);
    EXPECT_FALSE(wrong.enforceInterface(String16("vekd")));
    EXPECT_EQ(wrong.readInt32(), 10051);

    Parcel none;
    EXPECT_FALSE(none.checkInterface(binder.get()));
    EXPECT_FALSE(none.checkInterface(nullptr));
}

}  // namespace

// Descriptors are read only where one was written: bytes that merely look
// like a descriptor object are data. The parcel closes the ones it owns.
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
        forged.assign(p.data(), p.data() + p.dataSize());
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
