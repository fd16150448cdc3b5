// The history's file: bounded, believed only when it is ours, and never trusted.
#include "update/history.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "base/text.h"
#include "tests/support/daemon_test.h"

namespace {

using Numbers = std::string;

bool NoteNumber(RunRecord& run, void* numbers) {
    *static_cast<Numbers*>(numbers) += std::to_string(run.number) + " ";
    return true;
}

class History : public DaemonTest {
  protected:
    static constexpr const char* kFile = HISTORY_FILE + 1;
    [[nodiscard]] std::string Text() const { return dir_.Read(kFile); }
    static void Run(int apps) {
        history_begin(UPDATE_RUN_DAILY);
        UpdateServer server{};
        (void)text_copy(server.host, "h\xff\"\n.example");
        history_server_begin(server);
        RunApp app{};
        (void)text_copy(app.name, "\xed\xa0\x80\"name\"");
        for (int i = 0; i < apps; ++i) history_app_begin(app);
        history_server_end(UPDATE_LATEST, {});
        history_end(UPDATE_OK);
    }
    static Numbers Listed(int error) {
        Numbers numbers;
        EXPECT_EQ(history_read(nullptr, NoteNumber, &numbers), error);
        return numbers;
    }
};

TEST_F(History, KeepsWhatFitsOfTheLastTwenty) {
    for (int i = 0; i < 25; ++i) Run(0);
    const Numbers all = Listed(0);
    EXPECT_EQ(std::count(all.begin(), all.end(), ' '), 20);
    for (int i = 0; i < 6; ++i) Run(APP_REG_MAX * RUN_SERVERS_MAX);
    EXPECT_LE(Text().size(), HISTORY_FILE_MAX);
    const Numbers left = Listed(0);
    EXPECT_EQ(left.substr(0, 3), "31 ");
    EXPECT_LT(std::count(left.begin(), left.end(), ' '), 20) << "large ones take their room";
    // Text from outside stands in it as clean UTF-8.
    EXPECT_NE(Text().find(R"("h?\"?.example")"), std::string::npos);
    EXPECT_NE(Text().find(R"("???\"name\"")"), std::string::npos);
}

TEST_F(History, SpoiltFilesCostThemselvesOnly) {
    const std::string path = dir_ / kFile;
    Run(1);
    const std::string good = Text();
    struct Row {
        const char* name;
        std::string text;
    };
    std::string servers = good, deep = good;
    const std::string many = R"("servers":[{},{},{},{},{},)";
    servers.replace(servers.find(R"("servers":[)"), 11, many);
    deep.replace(deep.find(R"("apps":[)"), 8, R"("apps":[)" + std::string(30000, '['));
    const Row rows[] = {
        {"empty object", "{}"},
        {"another format", R"({"format":2,"runs":[]})"},
        {"garbage", "\x7f\x45LF"},
        {"cut", good.substr(0, good.size() / 2)},
        {"too many servers", servers},
        {"nested deeply", deep},
        {"numbers beyond all", R"({"format":1,"totals":{"last_number":1e999}})"},
        {"too large", good + std::string(HISTORY_FILE_MAX, ' ')},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        dir_.Write(kFile, row.text);
        Numbers ignored;
        (void)history_read(nullptr, NoteNumber, &ignored);
        Run(1);
        EXPECT_EQ(Listed(0).find(' '), Listed(0).size() - 1) << "just the new run";
        EXPECT_TRUE(std::filesystem::exists(path + ".damaged"));
        std::filesystem::remove(path + ".damaged");
    }
    // Others can write it, or it lies elsewhere: whatever it says.
    dir_.Write(kFile, good);
    (void)chmod(path.c_str(), 0666);
    EXPECT_EQ(Listed(0), "");
    std::filesystem::create_symlink(path + ".damaged", path);
    EXPECT_EQ(Listed(0), "");
}

}  // namespace
