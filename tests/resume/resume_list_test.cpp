// The resume list and its file.
#include <sys/stat.h>
#include <unistd.h>

#include "resume/resume_file.h"
#include "resume/resume_list.h"
#include "resume/resume_timer.h"
#include "tests/support/daemon_test.h"

using Names = std::vector<std::string>;

// A file-name array of paths below a directory.
struct Paths {
    Paths(const std::string& directory, Names names) : texts(std::move(names)) {
        for (std::string& text : texts) {
            text = directory + "/" + text;
            text.resize(FILENAME_SIZE);
            array.push_back(text.data());
        }
    }
    int32_t count() const { return static_cast<int32_t>(array.size()); }
    Names texts;
    std::vector<char*> array;
};

// "app(count) name=state ...; app ..." in list order, names without directory.
static std::string ResumeListed() {
    MutexLock guard(resume_lock);
    std::string text;
    for (ResumeApp* app = resume_next_app(&ResumeList); app; app = resume_next_app(app)) {
        text += (text.empty() ? "" : "; ") + std::string(app->name);
        text += "(" + std::to_string(app->count) + ")";
        for (ResumeFile* file = resume_next_file(app, &app->files); file;
             file = resume_next_file(app, file)) {
            const std::string name = std::filesystem::path(file->path).filename();
            text += " " + name + "=" + std::to_string(file->state);
        }
    }
    return text;
}

class ResumeTest : public DaemonTest {
  protected:
    ResumeTest() {
        resume_init();
        (void)fakes::Syslog();
    }

    int Add(const char* app, const Names& names, int32_t n, bool incremental = false) {
        Paths paths(dir_.path(), names);
        return resume_add(app, paths.array.data(), paths.count(), n, incremental);
    }
    void Touch(const Names& names) {
        for (const std::string& name : names) dir_.Write(name, "x");
    }
};

static std::string Document(const std::string& apps) {
    return "<?xml version=\"1.0\"?>\n<filelist>" + apps + "</filelist>\n";
}

static std::string App(const std::string& name, int count, const Names& files) {
    std::string text =
        "<app name=\"" + name + "\"><filecnt>" + std::to_string(count) + "</filecnt>";
    for (const std::string& file : files) text += "<file name=\"" + file + "\"/>";
    return text + "</app>";
}

TEST_F(ResumeTest, DeletesStaleFetchedFilesOnly) {
    Touch({"a", "b", "c", "d", "e", "x"});
    ASSERT_EQ(Add("app", {"a", "b", "c", "d"}, 2), 0);  // d was not fetched
    ASSERT_EQ(Add("app", {"a", "e", "b"}, 0), 0);       // only a is among the first n + 1
    EXPECT_EQ(ResumeListed(), "app(3) a=-1 e=1 b=1");
    EXPECT_EQ(OnDisk({"a", "b", "c", "d", "e"}), "ade");

    ASSERT_EQ(Add("front", {"x", "d"}, 0), 0);
    resume_free_first();
    EXPECT_EQ(OnDisk({"a", "d", "x"}), "ad");
    Paths kept(dir_.path(), {"a"});
    resume_free_app("app", kept.array.data(), 1);
    EXPECT_EQ(OnDisk({"a", "d", "e"}), "ade");
    EXPECT_EQ(ResumeListed(), "");
}

TEST_F(ResumeTest, FileCarriesTheListThroughRestarts) {
    ASSERT_EQ(Add("B", {"x", "y", "z"}, 2), 0);
    ASSERT_EQ(Add("A&<\"", {"sp ace", "\xc3\xa4"}, 1), 0);
    for (const char* odd : {"a\x01", "b\xff", "c\xed\xa0\x80", "d\xc3"})  // no document has these
        ASSERT_EQ(Add("odd", {"f", odd}, 0), 0);
    resume_write();
    EXPECT_EQ(dir_.Read(RESUME_FILE),
              Document(App("A&amp;&lt;&quot;", 2, {dir_ / "sp ace", dir_ / "&#xE4;"}) +
                       App("B", 3, {dir_ / "x", dir_ / "y", dir_ / "z"})));
    resume_retry_count = 1;
    resume_init();
    EXPECT_EQ(ResumeListed(), "B(3) x=-1 y=1 z=1; A&<\"(2) sp ace=-1 \xc3\xa4=1");
    EXPECT_EQ(resume_retry_count, RESUME_RETRY_MAX);
}

TEST_F(ResumeTest, DamagedFileCostsItsDamagedEntriesOnly) {
    const std::string good = App("good", 1, {"/f"});
    std::string many;
    for (int i = 0; i < 1500; ++i) many += App("a" + std::to_string(i), 1, {"/f"});
    for (const auto& [content, front, apps] : {
             std::tuple(Document(good).substr(0, 60), std::string(), 0U),
             {Document("<app><filecnt>1</filecnt><file name='/f'/></app>" + App("a", 3, {"/1"}) +
                       good),
              "good(1) f=-1", 1},
             {Document(App(std::string(40, 'n'), 1, {"/f"})), std::string(31, 'n') + "(1) f=-1", 1},
             {Document(good + App("good", 2, {"/f", "/g"})), "good(2) f=-1 g=1", 1},
             {Document(many), "a999(1) f=-1; ", 1000},
         }) {
        SCOPED_TRACE(content.substr(0, 100));
        dir_.Write(RESUME_FILE, content);
        resume_init();
        EXPECT_EQ(resume_app_count(), apps);
        EXPECT_EQ(ResumeListed().substr(0, front.size()), front);
    }
}

// Who may write to the data directory may have no file deleted by way of the list.
TEST_F(ResumeTest, FileThatOthersCouldHaveWrittenIsNotBelieved) {
    const std::string path = dir_ / (RESUME_FILE + 1);
    ASSERT_EQ(Add("app", {"a"}, 0), 0);
    resume_write();
    ASSERT_EQ(chmod(path.c_str(), 0646), 0);
    resume_init();
    EXPECT_EQ(ResumeListed(), "");
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    resume_init();
    EXPECT_EQ(ResumeListed(), "app(1) a=-1");
    ASSERT_EQ(rename(path.c_str(), (dir_ / "moved").c_str()), 0);
    ASSERT_EQ(symlink((dir_ / "moved").c_str(), path.c_str()), 0);
    resume_init();
    EXPECT_EQ(ResumeListed(), "");
    // What a crash left half-way counts when it is all there is, and whole.
    ASSERT_EQ(unlink(path.c_str()), 0);
    dir_.Write(RESUME_FILE + std::string(".new"), Document("<app name='a"));
    resume_init();
    EXPECT_EQ(OnDisk({RESUME_FILE + std::string(".new")}), "");
    ASSERT_EQ(rename((dir_ / "moved").c_str(), (path + ".new").c_str()), 0);
    resume_init();
    EXPECT_EQ(ResumeListed(), "app(1) a=-1");
}

TEST_F(ResumeTest, EndOfAnEntrySparesWhatIsInUse) {
    Touch({"fetched", "held", "delivered"});
    ASSERT_EQ(Add("app", {"fetched", "held", "delivered"}, 2), 0);
    Paths delivered(dir_.path(), {"delivered"});
    resume_note_delivered(delivered.array.data(), 1);
    Paths held(dir_.path(), {"other", "held"});
    {
        const ResumeHold hold(held.array.data(), held.count());
        resume_free_first();
    }
    EXPECT_EQ(OnDisk({"fetched", "held", "delivered"}), "helddelivered");
    ASSERT_EQ(Add("app", {"held"}, 0), 0);
    resume_free_first();
    EXPECT_EQ(OnDisk({"held"}), "");
}
