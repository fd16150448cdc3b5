// The resume list and its file.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "frame/report.h"
#include "tests/resume/resume_fixture.h"
#include "tests/support/failing_alloc.h"

static std::string Document(const std::string& apps) {
    return "<?xml version=\"1.0\"?>\n<filelist>" + apps + "</filelist>\n";
}

static std::string App(const std::string& name, int count, const Names& files) {
    std::string text =
        "<app name=\"" + name + "\"><filecnt>" + std::to_string(count) + "</filecnt>";
    for (const std::string& file : files) text += "<file name=\"" + file + "\"/>";
    return text + "</app>";
}

TEST_F(ResumeTest, AddRecordsStates) {
    EXPECT_EQ(Add("daily", {"a", "b", "c", "d", "e"}, 2), 0);
    EXPECT_EQ(Add("incremental", {"a", "b", "c", "d", "e"}, 2, true), 0);
    EXPECT_EQ(Add("x", {"a"}, 1, true), -1);
    EXPECT_EQ(Listed(), "incremental(3) c=-1 d=1 e=1; daily(5) a=0 b=0 c=-1 d=1 e=1");
    const std::string log = fakes::Syslog();
    EXPECT_HAS(log, "[" + (dir_ / "a") + "]<-->add to resume file [down success]\n");
    EXPECT_HAS(log, "[" + (dir_ / "c") + "]<-->add to resume file [down fail]\n");
    EXPECT_HAS(log, "[" + (dir_ / "d") + "]<-->add to resume file [no down]\n");
    EXPECT_HAS(log, "[incremental]<-->add to resume count 3\n");
}

TEST_F(ResumeTest, DeletesStaleFetchedFilesOnly) {
    Touch({"a", "b", "c", "d", "e", "x"});
    ASSERT_EQ(Add("app", {"a", "b", "c", "d"}, 2), 0);  // d was not fetched
    ASSERT_EQ(Add("app", {"a", "e", "b"}, 0), 0);       // only a is among the first n + 1
    EXPECT_EQ(Listed(), "app(3) a=-1 e=1 b=1");
    EXPECT_EQ(OnDisk({"a", "b", "c", "d", "e"}), "ade");
    EXPECT_HAS(fakes::Syslog(), "[" + (dir_ / "b") + "]<-->unlink in resume list\n");

    ASSERT_EQ(Add("front", {"x", "d"}, 0), 0);
    resume_free_first();
    EXPECT_EQ(OnDisk({"a", "d", "x"}), "ad");
    Paths kept(dir_.path(), {"a"});
    resume_free_app("app", kept.array.data(), 1);
    EXPECT_EQ(OnDisk({"a", "d", "e"}), "ade");
    EXPECT_TRUE(resume_empty());
    resume_free_first();
    resume_free_app("app", nullptr, 0);
}

TEST_F(ResumeTest, GetHandsThePathsOver) {
    int32_t count = 0;
    EXPECT_EQ(resume_get("app", &count), nullptr);
    EXPECT_EQ(fakes::Syslog(), "have no file in resume\n");
    Touch({"a", "b"});
    ASSERT_EQ(Add("app", {"a", "b"}, 0), 0);
    FilenameArray array = resume_get("app", &count);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(array[0], dir_ / "a");
    EXPECT_EQ(array[1], dir_ / "b");
    filename_free(array, count);
    EXPECT_TRUE(resume_empty());
    EXPECT_EQ(OnDisk({"a", "b"}), "ab");
}

TEST_F(ResumeTest, DelFilesLeavesTheListAlone) {
    Touch({"a", "b", "c"});
    ASSERT_EQ(Add("app", {"a", "b"}, 0), 0);
    (void)fakes::Syslog();
    Paths listed(dir_.path(), {"a", "b"});
    Paths other(dir_.path(), {"c"});
    resume_del_files("app", listed.array.data(), 2);
    resume_del_files("other", other.array.data(), 1);
    EXPECT_EQ(OnDisk({"a", "b", "c"}), "");
    EXPECT_EQ(Listed(), "app(2) a=-1 b=1");
    EXPECT_EQ(fakes::Syslog(), "[app]<-->[" + (dir_ / "a") + "] in resume for -1\n[app]<-->[" +
                                   (dir_ / "a") + "] del\n[app]<-->[" + (dir_ / "b") + "] del\n[" +
                                   (dir_ / "c") + "]<-->unlink\n");
}

TEST_F(ResumeTest, ShortMemoryNeverLeavesHalfAnEntry) {
    for (int allocations = 0; allocations < 4; allocations++) {
        SCOPED_TRACE(allocations);
        const MemoryEndsAfter limit(allocations);
        EXPECT_EQ(Add("app", {"a", "b", "c"}, 0), -1);
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
    for (const char* odd : {"a\x01", "b\xff", "c\xed\xa0\x80", "d\xc3"})  // no document has these
        ASSERT_EQ(Add("odd", {"f", odd}, 0), 0);
    resume_write();
    EXPECT_EQ(File(), Document(App("A&amp;&lt;&quot;", 2, {dir_ / "sp ace", dir_ / "&#xE4;"}) +
                               App("B", 3, {dir_ / "x", dir_ / "y", dir_ / "z"})));
    resume_retry_count = 1;
    resume_init();
    EXPECT_EQ(Listed(), "B(3) x=-1 y=1 z=1; A&<\"(2) sp ace=-1 \xc3\xa4=1");
    EXPECT_EQ(resume_retry_count, RESUME_RETRY_MAX);
    (void)fakes::Syslog();
    resume_write();
    EXPECT_EQ(fakes::Syslog(), "[resume_write]<-->resume list not changed\n");
    resume_free_first();
    resume_free_first();
    resume_write();
    EXPECT_EQ(File(), "<?xml version=\"1.0\"?>\n<filelist/>\n");
}

TEST_F(ResumeTest, DamagedFileCostsItsDamagedEntriesOnly) {
    const std::string good = App("good", 1, {"/f"});
    std::string many;
    for (int i = 0; i < 1500; i++) many += App("a" + std::to_string(i), 1, {"/f"});
    const struct {
        const char* name;
        std::string content;
        const char* front;  // first listed entry
        uint32_t apps;
        const char* logged;
    } rows[] = {
        {"empty", "", "", 0, "]<-->no exist"},
        {"not XML", "\x7f ELF", "", 0, "] read fail"},
        {"cut short", Document(good).substr(0, 60), "", 0, "] read fail"},
        {"other root", "<other>" + good + "</other>", "", 0, "] root node fail"},
        {"doctype", "<!DOCTYPE filelist []>" + Document(good).substr(22), "", 0, "] read fail"},
        {"no name", Document("<app><filecnt>1</filecnt><file name='/f'/></app>" + good),
         "good(1) /f=-1", 1, "[/oam/http_client/http_recode.txt]<-->have no app_name"},
        {"counts",
         Document(App("a", 3, {"/1"}) + App("b", 101, {"/1"}) + App("c", 0, {}) + App("d", -1, {}) +
                  "<app name='e'/>" + good),
         "good(1) /f=-1", 1, "[e]<-->have no file"},
        {"name cut", Document(App(std::string(40, 'n'), 1, {"/f"})),
         "nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn(1) /f=-1", 1, "]<-->filecnt 1 in resume read app"},
        {"listed twice", Document(good + App("good", 2, {"/f", "/g"})), "good(2) /f=-1 /g=1", 1,
         ""},
        {"too many", Document(many), "a999(1) /f=-1; ", 1000, "[a1000]<-->over 1000 apps"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        dir_.Write(RESUME_FILE, row.content);
        (void)fakes::Syslog();
        resume_init();
        EXPECT_EQ(resume_app_count(), row.apps);
        EXPECT_EQ(Listed().rfind(row.front, 0), 0U);
        EXPECT_HAS(fakes::Syslog(), row.logged);
        EXPECT_EQ(File(), row.content);
    }
}

TEST_F(ResumeTest, FailedSaveLeavesNoFileAndIsTriedAgain) {
    const std::string file = RESUME_FILE + 1;
    ASSERT_EQ(Add("app", {"a"}, 0), 0);
    resume_write();
    EXPECT_EQ(write_apps(resume_file_path, [](xmlNodePtr) { return -1; }), -1);
    EXPECT_HAS(fakes::Syslog(), "]-->app_write fail in write apps\n");
    EXPECT_EQ(OnDisk({file}), file);  // nothing to put in its place

    ASSERT_EQ(Add("app2", {"b"}, 0), 0);
    (void)signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    const rlimit small{40, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    resume_write();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
    EXPECT_EQ(OnDisk({file, file + ".new"}), "");
    EXPECT_HAS(fakes::Syslog(), "write_apps-->[" + (dir_ / file) + "] write fail [File too large]");

    dir_.Write("victim", "precious");
    ASSERT_EQ(symlink((dir_ / "victim").c_str(), (dir_ / (file + ".new")).c_str()), 0);
    resume_write();
    EXPECT_EQ(dir_.Read("victim"), "precious");
    resume_init();
    EXPECT_EQ(Listed(), "app(1) a=-1; app2(1) b=-1");

    std::filesystem::remove_all(dir_ / "oam");
    dir_.Write("oam", "");
    resume_free_first();
    resume_write();
    EXPECT_HAS(fakes::Syslog(), "[resume_write]<-->[/oam/http_client] mkdir fail [");
}

TEST_F(ResumeTest, ManyThreadsKeepTheListWhole) {
    DebugMask = 0;
    std::vector<std::thread> threads;
    for (const char* app : {"a", "b", "c"}) {
        threads.emplace_back([this, app] {
            for (int round = 0; round < 20; round++) {
                EXPECT_EQ(Add(app, {"f", "g"}, 0), 0);
                int32_t count = 0;
                FilenameArray array = resume_get(app, &count);
                filename_free(array, count);  // null when another thread dropped it
                EXPECT_EQ(Add(app, {"f"}, 0), 0);
                resume_write();
                resume_show(REPORT_TERMINAL);
                if (round % 8 == 0) resume_free_first();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    const size_t listed = Listed().size();
    resume_init();
    EXPECT_EQ(Listed().size(), listed);
}
