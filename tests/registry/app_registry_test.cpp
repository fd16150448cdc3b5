#include "registry/app_registry.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/failing_alloc.h"

namespace {

constexpr int FD = 5;

struct AppRegistry : testing::Test {
    ~AppRegistry() override {
        reg_app_del_by_fd(FD);
        reg_app_files_help();
    }
    static AppEntry Get(int slot) {
        AppEntry entry;
        EXPECT_EQ(reg_app_get(slot, &entry), 0) << slot;
        return entry;
    }
    static void Add(const std::string& name, uint32_t flags = 0) {
        EXPECT_EQ(reg_app_add(FD, name, "1.0", flags), REG_OK) << name;
    }
};

TEST_F(AppRegistry, AddAnswersForItsTable) {
    const char* help = reg_app_help_text();
    EXPECT_STREQ(help, "Files: null");
    Add("alpha", 0x80000001);
    EXPECT_EQ(reg_app_add(FD, "alpha", "9.9", 0), REG_OK);
    EXPECT_EQ(reg_app_add(FD + 1, "alpha", "9.9", 0), REG_DUPLICATE);
    EXPECT_STREQ(Get(0).version, "1.0");
    EXPECT_EQ(Get(0).flags, 0x80000001);
    {
        const MemoryEndsAfter now(0);
        EXPECT_EQ(reg_app_add(FD, "beta", "1", 0), REG_NO_MEMORY);
    }
    Add("beta");
    EXPECT_STREQ(help, "Files:alpha beta (multiple files splitted by space)");
    for (int i = 2; i < APP_REG_MAX; ++i) Add("app" + std::to_string(i));
    EXPECT_EQ(reg_app_add(FD, "late", "1", 0), REG_TABLE_FULL);
    ASSERT_EQ(reg_app_del_by_name("app7"), 0);
    EXPECT_EQ(reg_app_del_by_name("app7"), -1);
    Add("late");
    EXPECT_STREQ(Get(7).name, "late");
    AppEntry entry;
    EXPECT_EQ(reg_app_get(-1, &entry) + reg_app_get(APP_REG_MAX, &entry), -2);
}

TEST_F(AppRegistry, AppsReportResultsAndModes) {
    Add("alpha", APP_FLAG_BUSY | APP_FLAG_MANUAL);
    Add("beta", APP_FLAG_BUSY);
    reg_app_update_result("alpha", "2.1", UPDATE_RESULT_UPDATING);
    EXPECT_EQ(Get(0).flags, APP_FLAG_BUSY | APP_FLAG_MANUAL);
    reg_app_update_result("alpha", "2.1", -1);
    EXPECT_EQ(Get(0).flags, APP_FLAG_MANUAL);
    EXPECT_STREQ(Get(0).version, "1.0");
    reg_app_update_result("beta", "", 0);
    EXPECT_STREQ(Get(1).version, "1.0");
    reg_app_update_result("beta", "2.1", 0);
    EXPECT_STREQ(Get(1).version, "2.1");
    AppSet set{};
    app_set_insert(&set, 65535);  // of an earlier use
    reg_app_auto_set(&set);
    EXPECT_EQ(set.words[0], 0x2U);
    EXPECT_FALSE(app_set_contains(set, 65535));
    reg_app_set_mode("alpha", 7);
    reg_app_set_mode("beta", APP_MODE_MANUAL);
    reg_app_auto_set(&set);
    EXPECT_EQ(set.words[0], 0x1U);
}

TEST_F(AppRegistry, ParsesNames) {
    const std::string longest(31, 'x');
    Add("alpha");
    Add(longest);
    Add("beta");
    AppSet set{};
    EXPECT_EQ(
        reg_app_parse_names((" \t alpha \v\f gamma\r\n" + longest + " Beta bet ").c_str(), &set),
        0);
    EXPECT_EQ(set.words[0], 0x3U);
    EXPECT_EQ(reg_app_parse_names(("beta " + longest + "x").c_str(), &set), -1);
    EXPECT_EQ(set.words[0], 0x7U);
}

}  // namespace
