#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <fstream>

#include "platform/PropertyStore.h"
#include "tests/support/TempRoot.h"

namespace {

class PropertyFiles : public testing::Test {
  protected:
    vekd::test::TempRoot root;
    void writeRaw(const std::string& name, const std::string& content) {
        root.writeFile("/dev/__properties__/" + name, content);
    }
    std::string get(const char* name, const char* def = "dflt") {
        char buf[PROPERTY_VALUE_MAX];
        int len = property_get(name, buf, def);
        EXPECT_EQ(len, static_cast<int>(strlen(buf)));
        return buf;
    }
};

TEST_F(PropertyFiles, MissingOrEmptyFileGivesTheDefault) {
    EXPECT_EQ(get("vendor.vek.enabled"), "dflt");
    writeRaw("vendor.vek.enabled", "");
    EXPECT_EQ(get("vendor.vek.enabled"), "dflt");
    char buf[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("vendor.vek.enabled", buf, nullptr), 0);
    EXPECT_STREQ(buf, "");
}

TEST_F(PropertyFiles, ValueEndsAtFirstNewlineAndAt91Bytes) {
    writeRaw("vendor.vek.debug", "1\nignored\n");
    EXPECT_EQ(get("vendor.vek.debug"), "1");
    writeRaw("long", std::string(200, 'x'));
    EXPECT_EQ(get("long"), std::string(91, 'x'));
}

TEST_F(PropertyFiles, SetReplacesTheFileAndIsReadBack) {
    ASSERT_EQ(property_set("vendor.vek.enabled", "2"), 0);
    EXPECT_EQ(get("vendor.vek.enabled"), "2");
    std::ifstream in(root.at("/dev/__properties__/vendor.vek.enabled"));
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(content, "2\n");
    ASSERT_EQ(property_set("vendor.vek.enabled", "1"), 0);
    EXPECT_EQ(get("vendor.vek.enabled"), "1");
}

TEST_F(PropertyFiles, NamesThatWouldLeaveTheDirectoryAreRefused) {
    EXPECT_NE(property_set("../escape", "1"), 0);
    EXPECT_NE(property_set("..", "1"), 0);
    EXPECT_NE(property_set("", "1"), 0);
    EXPECT_NE(property_set("a", std::string(92, 'v').c_str()), 0);
    EXPECT_NE(property_set("a", "two\nlines"), 0);
    EXPECT_EQ(get("../escape"), "dflt");
    EXPECT_FALSE(vekd::platform::isValidPropertyName("a/b"));
    EXPECT_TRUE(vekd::platform::isValidPropertyName("vendor.bemo.operator.iso-country"));
}

}  // namespace
