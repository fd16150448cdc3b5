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

// A name that was cut must still be unique, and its app reachable.
TEST_F(AppRegistry, LongTextsAreCutToTheirFields) {
    const std::string name(APP_NAME_SIZE, 'n');
    const std::string kept = name.substr(1);
    ASSERT_EQ(reg_app_add(5, name, std::string(40, 'v'), 0), REG_OK);
    ASSERT_EQ(reg_app_add(6, name, "1", 0), REG_DUPLICATE);
    ASSERT_EQ(reg_app_set_savepath(kept, std::string(200, 'p')), 0);
    EXPECT_EQ(Get(0).name, kept);
    EXPECT_EQ(Get(0).version, std::string(31, 'v'));
    EXPECT_EQ(Get(0).save_path, std::string(127, 'p'));
    EXPECT_EQ(reg_app_set_savepath("nobody", "/x"), -1);
}

TEST_F(AppRegistry, ConnectionTakesItsAppsAlong) {
    Add("alpha", 0, 5);
    Add("beta", 0, 6);
    Add("gamma", 0, 5);
    EXPECT_TRUE(reg_app_fd_in_use(5));
    reg_app_del_by_fd(5);
    EXPECT_FALSE(reg_app_fd_in_use(5));
    EXPECT_EQ(All(), 0x2U);
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
    std::string expected = "Files:";
    for (int i = 0; i < APP_REG_MAX; ++i) {
        const std::string name = std::to_string(10 + i) + std::string(29, 'n');
        Add(name);
        expected += name + " ";
    }
    EXPECT_EQ(help, expected + "(multiple files splitted by space)");
}

}  // namespace
