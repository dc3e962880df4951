#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/PropertyStore.h"
#include "tests/support/TempRoot.h"

namespace {

// What property_get answers (and its length) for a file's content.
TEST(PropertyFiles, ValueIsTheFileUpToItsFirstNewlineAnd91BytesOrTheDefault) {
    vekd::test::TempRoot root;
    const std::pair<const char*, std::string> cases[] = {
        {nullptr, "dflt"}, {"", "dflt"}, {"1\nignored\n", "1"}, {"\n", "dflt"},
    };
    char buf[PROPERTY_VALUE_MAX];
    for (const auto& [content, value] : cases) {
        if (content != nullptr) root.writeFile("/dev/__properties__/p", content);
        EXPECT_EQ(property_get("p", buf, "dflt"), static_cast<int>(value.size())) << value;
        EXPECT_EQ(buf, value);
    }
    root.writeFile("/dev/__properties__/long", std::string(200, 'x'));
    EXPECT_EQ(property_get("long", buf, nullptr), 91);
    EXPECT_EQ(buf, std::string(91, 'x'));
}

TEST(PropertyFiles, SetReplacesTheFileAndBadNamesOrValuesAreRefused) {
    vekd::test::TempRoot root;
    for (const std::string& value : {std::string("2"), std::string(91, 'v')}) {
        ASSERT_EQ(property_set("vendor.vek.enabled", value.c_str()), 0);
        EXPECT_EQ(vekd::test::readFile(root.at("/dev/__properties__/vendor.vek.enabled")), value + "\n");
    }
    struct stat dir {};  // readable by every reader of properties, written by its owner only
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(stat(root.at("/dev/__properties__").c_str(), &dir) == 0 ? dir.st_mode & 0777 : 0, 0755u & ~mask);
    const std::pair<std::string, std::string> refused[] = {
        {"../escape", "1"}, {"..", "1"}, {"", "1"}, {"a/b", "1"}, {"a", std::string(92, 'v')}, {"a", "two\nlines"}};
    for (const auto& [name, value] : refused) EXPECT_NE(property_set(name.c_str(), value.c_str()), 0) << name;
    char buf[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("a", buf, "dflt"), 4);
    EXPECT_TRUE(vekd::platform::isValidPropertyName("vendor.bemo.operator.iso-country"));
}

}  // namespace
