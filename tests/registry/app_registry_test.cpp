#include "registry/app_registry.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/failing_alloc.h"

namespace {

class AppRegistry : public testing::Test {
  protected:
    void TearDown() override {
        AppEntry entry;
        for (int slot = 0; slot < APP_REG_MAX; ++slot) {
            if (reg_app_get(slot, &entry) == 0) reg_app_del_by_fd(entry.fd);
        }
        reg_app_files_help();
    }

    static AppEntry Get(int slot) {
        AppEntry entry;
        EXPECT_EQ(reg_app_get(slot, &entry), 0) << slot;
        return entry;
    }
    static void Add(const std::string& name, uint32_t flags = 0, int fd = 5) {
        EXPECT_EQ(reg_app_add(fd, name, "1.0", flags), REG_OK) << name;
    }
    static uint64_t Slots(const AppSet& set) {
        for (size_t word = 1; word < APP_SET_WORDS; ++word) EXPECT_EQ(set.words[word], 0U);
        return set.words[0];
    }
    static uint64_t All() {
        AppSet set{};
        reg_app_all(&set);
        return Slots(set);
    }
};

TEST_F(AppRegistry, AddAnswersForItsTable) {
    Add("alpha", 0x80000001, 5);
    EXPECT_EQ(reg_app_add(5, "alpha", "9.9", 0), REG_OK);
    EXPECT_EQ(reg_app_add(6, "alpha", "9.9", 0), REG_DUPLICATE);
    EXPECT_STREQ(Get(0).version, "1.0");
    EXPECT_EQ(Get(0).flags, 0x80000001);
    {
        const MemoryEndsAfter now(0);
        EXPECT_EQ(reg_app_add(5, "beta", "1", 0), REG_NO_MEMORY);
    }
    for (int i = 1; i < APP_REG_MAX; ++i) Add("app" + std::to_string(i));
    EXPECT_EQ(reg_app_add(5, "late", "1", 0), REG_TABLE_FULL);
    EXPECT_EQ(All(), 0xfffffU);
    ASSERT_EQ(reg_app_del_by_name("app7"), 0);
    EXPECT_EQ(reg_app_del_by_name("app7"), -1);
    Add("late");
    EXPECT_STREQ(Get(7).name, "late");
    AppEntry entry;
    EXPECT_EQ(reg_app_get(-1, &entry) + reg_app_get(APP_REG_MAX, &entry), -2);
    EXPECT_EQ(reg_app_get(0, nullptr), -1);
}

TEST_F(AppRegistry, ResultsEndBusyAndSetTheVersion) {
    struct Row {
        const char* name;
        int32_t result;
        const char* text;
        bool busy;
        const char* version;
    };
    for (const Row& row : {Row{"updating", 1, "2.1", true, "1.0"},
                           {"done", 0, "2.1", false, "2.1"},
                           {"done, no version", 0, "", false, "1.0"},
                           {"failed", 5, "2.1", false, "1.0"},
                           {"negative", -1, "x", false, "1.0"}}) {
        SCOPED_TRACE(row.name);
        Add("alpha", APP_FLAG_BUSY | APP_FLAG_INCREMENTAL);
        reg_app_update_result("alpha", row.text, row.result);
        EXPECT_EQ(Get(0).flags, APP_FLAG_INCREMENTAL | (row.busy ? APP_FLAG_BUSY : 0));
        EXPECT_STREQ(Get(0).version, row.version);
        ASSERT_EQ(reg_app_del_by_name("alpha"), 0);
    }
}

TEST_F(AppRegistry, ManualAppsLeaveTheDailySet) {
    Add("alpha");
    Add("beta", APP_FLAG_MANUAL);
    AppSet set{};
    app_set_insert(&set, 19);  // of an earlier use
    reg_app_auto_set(&set);
    EXPECT_EQ(Slots(set), 0x1U);
    reg_app_set_mode("alpha", 1);
    reg_app_set_mode("beta", 7);
    reg_app_set_mode("nobody", 1);
    reg_app_auto_set(&set);
    EXPECT_EQ(Slots(set), 0x2U);
}

TEST_F(AppRegistry, ParsesNames) {
    const std::string longest(31, 'x');
    Add("alpha");
    Add("beta");
    Add(longest);
    struct Row {
        std::string text;
        int result;
        uint64_t slots;
    };
    for (const Row& row : {Row{"", 0, 0},
                           {" \t\n\v\f\r", 0, 0},
                           {"  alpha   gamma ", 0, 1},
                           {"beta\talpha", 0, 3},
                           {longest, 0, 4},
                           {"Alpha alphab alph", 0, 0},
                           {"beta " + longest + "x alpha", -1, 2}}) {
        SCOPED_TRACE(row.text);
        AppSet set{};
        EXPECT_EQ(reg_app_parse_names(row.text.c_str(), &set), row.result);
        EXPECT_EQ(Slots(set), row.slots);
    }
}

TEST_F(AppRegistry, HelpTextFollowsTheTable) {
    const char* help = reg_app_help_text();
    EXPECT_STREQ(help, "Files: null");
    Add("alpha");
    Add("beta");
    EXPECT_STREQ(help, "Files:alpha beta (multiple files splitted by space)");
    (void)reg_app_del_by_name("alpha");
    (void)reg_app_del_by_name("beta");
    EXPECT_STREQ(help, "Files: null");
}

}  // namespace
