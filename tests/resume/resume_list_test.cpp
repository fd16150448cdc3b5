// The resume list and its file.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "frame/report.h"
#include "http/xml.h"
#include "tests/resume/resume_fixture.h"
#include "tests/support/failing_alloc.h"

namespace {

std::string Document(const std::string& apps) {
    return "<?xml version=\"1.0\"?>\n<filelist>" + apps + "</filelist>\n";
}

std::string App(const std::string& name, int count, const std::vector<std::string>& files) {
    std::string text =
        "<app name=\"" + name + "\"><filecnt>" + std::to_string(count) + "</filecnt>";
    for (const std::string& file : files) text += "<file name=\"" + file + "\"/>";
    return text + "</app>";
}

}  // namespace

TEST_F(ResumeTest, AddRecordsStates) {
    EXPECT_EQ(Add("daily", {"a", "b", "c", "d", "e"}, 2), 0);
    EXPECT_EQ(Add("incremental", {"a", "b", "c", "d", "e"}, 2, true), 0);
    EXPECT_EQ(Add("first", {"f"}, 0), 0);
    EXPECT_EQ(Listed(),
              "first(1) f=-1; incremental(3) c=-1 d=1 e=1; daily(5) a=0 b=0 c=-1 d=1 e=1");
    const std::string log = fakes::Syslog();
    EXPECT_HAS(log, "[" + (dir_ / "a") + "]<-->add to resume file [down success]\n");
    EXPECT_HAS(log, "[" + (dir_ / "c") + "]<-->add to resume file [down fail]\n");
    EXPECT_HAS(log, "[" + (dir_ / "d") + "]<-->add to resume file [no down]\n");
    EXPECT_HAS(log, "[incremental]<-->add to resume count 3\n");

    EXPECT_EQ(Add(nullptr, {"a"}, 0), -1);
    EXPECT_EQ(resume_add("x", nullptr, 1, 0, false), -1);
    EXPECT_EQ(Add("x", {"a"}, 1, true), -1);
    EXPECT_EQ(resume_app_count(), 3U);
}

TEST_F(ResumeTest, ReplacementDeletesStaleFetchedFilesOnly) {
    Touch({"a", "b", "c", "d", "e"});
    ASSERT_EQ(Add("app", {"a", "b", "c", "d"}, 2), 0);  // d was not fetched
    EXPECT_EQ(Add("app", {"a", "e", "b"}, 0), 0);       // only a is among the first n + 1
    EXPECT_EQ(Listed(), "app(3) a=-1 e=1 b=1");
    EXPECT_EQ(OnDisk({"a", "b", "c", "d", "e"}), "ade");
    EXPECT_HAS(fakes::Syslog(), "[" + (dir_ / "b") + "]<-->unlink in resume list\n");
}

TEST_F(ResumeTest, DroppingAnEntryDeletesItsFetchedFiles) {
    Touch({"a", "b", "c", "x", "y"});
    ASSERT_EQ(Add("back", {"x", "y"}, 1), 0);
    ASSERT_EQ(Add("front", {"a", "b", "c"}, 1), 0);
    resume_free_first();
    EXPECT_EQ(Listed(), "back(2) x=0 y=-1");
    EXPECT_EQ(OnDisk({"a", "b", "c", "x", "y"}), "cxy");
    WithPaths({"x", "y"}, [](FilenameArray array, int32_t) { resume_free_app("back", array, 1); });
    EXPECT_EQ(OnDisk({"x", "y"}), "x");
    EXPECT_TRUE(resume_empty());
    resume_free_first();
    resume_free_app("back", nullptr, 0);
    EXPECT_HAS(fakes::Syslog(), "[back]<-->free in resume list\n");
}

TEST_F(ResumeTest, GetHandsThePathsOver) {
    int32_t count = 7;
    EXPECT_EQ(resume_get("app", &count), nullptr);
    EXPECT_EQ(resume_get(nullptr, &count), nullptr);
    EXPECT_EQ(fakes::Syslog(), "have no file in resume\ninvalid para in get resume file\n");
    Touch({"a", "b"});
    ASSERT_EQ(Add("app", {"a", "b"}, 0), 0);
    FilenameArray array = resume_get("app", &count);
    ASSERT_NE(array, nullptr);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(array[0], dir_ / "a");
    EXPECT_EQ(array[1], dir_ / "b");
    filename_free(array, count);
    EXPECT_TRUE(resume_empty());
    EXPECT_EQ(OnDisk({"a", "b"}), "ab");
}

TEST_F(ResumeTest, DelFilesLeavesTheListAlone) {
    Touch({"a", "b", "c"});
    const auto del = [&](const char* app, const Names& names) {
        WithPaths(names,
                  [&](FilenameArray array, int32_t count) { resume_del_files(app, array, count); });
    };
    ASSERT_EQ(Add("app", {"a", "b"}, 0), 0);
    (void)fakes::Syslog();
    del("app", {"a", "b"});
    del("other", {"c"});
    resume_del_files("app", nullptr, 1);
    EXPECT_EQ(OnDisk({"a", "b", "c"}), "");
    EXPECT_EQ(Listed(), "app(2) a=-1 b=1");
    EXPECT_EQ(fakes::Syslog(), "[app]<-->[" + (dir_ / "a") + "] in resume for -1\n" + "[app]<-->[" +
                                   (dir_ / "a") + "] del\n" +                 //
                                   "[app]<-->[" + (dir_ / "b") + "] del\n" +  //
                                   "[" + (dir_ / "c") + "]<-->unlink\n" +
                                   "invalid para in get resume file\n");
}

TEST_F(ResumeTest, ShortMemoryNeverLeavesHalfAnEntry) {
    for (int allocations = 0; allocations < 4; allocations++) {
        SCOPED_TRACE(allocations);
        WithPaths({"a", "b", "c"}, [&](FilenameArray array, int32_t count) {
            const MemoryEndsAfter limit(allocations);
            EXPECT_EQ(resume_add("app", array, count, 0, false), -1);
        });
        EXPECT_TRUE(resume_empty());
        EXPECT_HAS(fakes::Syslog(), "not enough memory\n");
    }
    Touch({"a", "b", "c"});
    ASSERT_EQ(Add("app", {"a", "b", "c"}, 1), 0);
    int32_t count = 0;
    const MemoryEndsAfter limit(2);
    EXPECT_EQ(resume_get("app", &count), nullptr);
    EXPECT_EQ(OnDisk({"a", "b", "c"}), "c");
    EXPECT_TRUE(resume_empty());
    EXPECT_HAS(fakes::Syslog(), "[app]<-->malloc fail for file in resume get\n");
}

TEST_F(ResumeTest, FileCarriesTheListThroughRestarts) {
    ASSERT_EQ(Add("B", {"x", "y", "z"}, 2), 0);
    ASSERT_EQ(Add("A&<\"", {"sp ace", "\xc3\xa4"}, 1), 0);
    resume_write();
    EXPECT_EQ(File(), Document(App("A&amp;&lt;&quot;", 2, {dir_ / "sp ace", dir_ / "&#xE4;"}) +
                               App("B", 3, {dir_ / "x", dir_ / "y", dir_ / "z"})));
    struct stat status {};
    ASSERT_EQ(stat((dir_ / RESUME_FILE).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 022, 0U);  // the list decides what gets deleted

    resume_retry_count = 1;
    Restart();
    EXPECT_EQ(Listed(), "B(3) x=-1 y=1 z=1; A&<\"(2) sp ace=-1 \xc3\xa4=1");
    EXPECT_EQ(resume_retry_count, RESUME_RETRY_MAX);
    (void)fakes::Syslog();
    resume_write();
    EXPECT_EQ(fakes::Syslog(), "[resume_write]<-->resume list not changed\n");

    resume_free_first();
    resume_free_first();
    resume_write();
    EXPECT_EQ(File(), "<?xml version=\"1.0\"?>\n<filelist/>\n");
    Restart();
    EXPECT_TRUE(resume_empty());
}

TEST_F(ResumeTest, DamagedFileCostsItsDamagedEntriesOnly) {
    const std::string good = App("good", 1, {"/f"});
    const std::string long_name(40, 'n');
    std::string many;
    for (int i = 0; i < 1500; i++) many += App("a" + std::to_string(i), 1, {"/f"});
    const struct {
        const char* name;
        std::string content;
        std::string listed;
        std::string logged;
    } rows[] = {
        {"empty", "", "", "]<-->no exist"},
        {"not XML",
         "\x7f"
         "ELF",
         "", "] read fail"},
        {"cut short", Document(good).substr(0, 60), "", "] read fail"},
        {"other root", "<other>" + good + "</other>", "", "] root node fail"},
        {"doctype", "<!DOCTYPE filelist [<!ENTITY e 'x'>]>" + Document(good).substr(22), "",
         "] read fail"},
        {"no name", Document("<app><filecnt>1</filecnt><file name='/f'/></app>" + good),
         "good(1) /f=-1", "[/oam/http_client/http_recode.txt]<-->have no app_name"},
        {"counts",
         Document(App("a", 3, {"/1"}) + App("b", 101, {"/1"}) + App("c", 0, {}) + App("d", -1, {}) +
                  "<app name='e'/>" + good),
         "good(1) /f=-1", "[e]<-->have no file"},
        {"name cut", Document(App(long_name, 1, {"/f"})), std::string(31, 'n') + "(1) /f=-1", ""},
        {"listed twice", Document(good + App("good", 2, {"/f", "/g"})), "good(2) /f=-1 /g=1", ""},
        {"indented", "<filelist>\n <note/>\n " + good + "\n</filelist>", "good(1) /f=-1", ""},
        {"a thousand and more", Document(many), "", "[a1000]<-->over 1000 apps in resume file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        dir_.Write(RESUME_FILE, row.content);
        (void)fakes::Syslog();
        Restart();
        if (resume_app_count() < 1000) {
            EXPECT_EQ(Listed(), row.listed);
        }
        EXPECT_LE(resume_app_count(), 1000U);
        EXPECT_HAS(fakes::Syslog(), row.logged);
        EXPECT_EQ(File(), row.content);
    }
}

TEST_F(ResumeTest, TextThatNoDocumentCarriesDoesNotSpoilTheFile) {
    ASSERT_EQ(Add("good", {"f"}, 0), 0);
    for (const char* name : {"a\x01", "b\xff", "c\xed\xa0\x80", "d\xc3"})
        ASSERT_EQ(Add("odd", {"f", name}, 0), 0);
    resume_write();
    EXPECT_EQ(File(), Document(App("good", 1, {dir_ / "f"})));
    EXPECT_EQ(resume_app_count(), 2U);
}

TEST_F(ResumeTest, FailedSaveLeavesNoFileAndIsTriedAgain) {
    (void)signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(Add("app", {"a"}, 0), 0);
    resume_write();
    ASSERT_EQ(Add("app2", {"b"}, 0), 0);
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    const rlimit small{40, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    resume_write();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
    EXPECT_EQ(OnDisk({RESUME_FILE + 1, std::string(RESUME_FILE + 1) + ".new"}), "");
    EXPECT_HAS(fakes::Syslog(),
               "write_apps-->[" + (dir_ / (RESUME_FILE + 1)) + "] write fail [File too large]\n");
    resume_write();
    Restart();
    EXPECT_EQ(Listed(), "app(1) a=-1; app2(1) b=-1");
}

TEST_F(ResumeTest, SaveFollowsNoLinkAndNeedsADirectory) {
    const std::string target = std::string(RESUME_FILE + 1);
    dir_.Write("victim", "precious");
    dir_.Write(target, "");
    ASSERT_EQ(symlink((dir_ / "victim").c_str(), (dir_ / (target + ".new")).c_str()), 0);
    ASSERT_EQ(Add("app", {"a"}, 0), 0);
    resume_write();
    EXPECT_EQ(dir_.Read("victim"), "precious");
    EXPECT_HAS(File(), "name=\"app\"");

    std::filesystem::remove_all(dir_ / "oam");
    dir_.Write("oam", "");
    ASSERT_EQ(Add("app", {"a"}, 0), 0);
    resume_write();
    EXPECT_HAS(fakes::Syslog(), "[resume_write]<-->[/oam/http_client] mkdir fail [");
    std::filesystem::remove(dir_ / "oam");
    resume_write();
    EXPECT_HAS(File(), "name=\"app\"");
}

TEST_F(ResumeTest, FailingWriterKeepsTheOldFile) {
    ASSERT_EQ(Add("app", {"a"}, 0), 0);
    resume_write();
    const std::string before = File();
    EXPECT_EQ(write_apps(resume_file_path, [](xmlNodePtr) { return -1; }), -1);
    EXPECT_HAS(fakes::Syslog(), "]-->app_write fail in write apps\n");
    EXPECT_EQ(File(), before);
    EXPECT_EQ(resume_write_apps(nullptr), -1);
    EXPECT_EQ(resume_read_app(nullptr), -1);
    EXPECT_EQ(xml_new_child(nullptr, "file", nullptr, nullptr), nullptr);
}

TEST_F(ResumeTest, OperationsOfManyThreadsKeepTheListWhole) {
    DebugMask = 0;
    std::vector<std::thread> threads;
    for (const char* app : {"a", "b", "c"}) {
        threads.emplace_back([this, app] {
            for (int round = 0; round < 50; round++) {
                EXPECT_EQ(Add(app, {"f", "g"}, 0), 0);
                int32_t count = 0;
                FilenameArray array = resume_get(app, &count);
                filename_free(array, count);  // null when the other thread dropped it
                EXPECT_EQ(Add(app, {"f"}, 0), 0);
                resume_write();
                resume_show(REPORT_TERMINAL);
                if (round % 10 == 0) resume_free_first();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    resume_write();
    const std::string listed = Listed();
    Restart();
    EXPECT_EQ(Listed().size(), listed.size());
}
