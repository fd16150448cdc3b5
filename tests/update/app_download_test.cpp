// A server's pass over its apps: what is fetched, handed over, kept, recorded
// and deleted. Downloads by script, apps over real sockets.
#include "update/app_download.h"

#include <algorithm>

#include "config/settings.h"
#include "http/xml.h"
#include "resume/resume_file.h"
#include "resume/resume_list.h"
#include "tests/registry/registry_fixture.h"
#include "update/download.h"
#include "update/progress.h"
#include "update/update_run.h"

class AppsDown : public RegistryServerTest {
  protected:
    void SetUp() override {
        RegistryServerTest::SetUp();
        ASSERT_EQ(setenv("DATA_VEMO_DIR", (dir_ / "d").c_str(), 1), 0);
        http_client_get_env_dir();
        resume_clear();
        resume_init();
        src_ip_set(SRC_IP_NONE);
        save_ = dir_ / "save/";
        fakes::ScriptDownloads([this](DownloadCtx* context, const fakes::Download& download) {
            return Fetch(context, download);
        });
    }

    // Writes the file unless its name is in codes_; a failed one leaves a part.
    int Fetch(DownloadCtx* context, const fakes::Download& download) {
        const std::string name = std::filesystem::path(download.path).filename();
        const auto code = codes_.find(name);
        std::ofstream(download.path) << "data of " << name;
        context->total = context->received = 8 + name.size();
        context->progress(context, static_cast<int32_t>(context->total));
        return code == codes_.end() ? HTTP_DOWNLOAD_OK : code->second;
    }

    static std::string File(const std::string& name, const std::string& downpaths = "") {
        return "<file name=\"" + name + "\">" +
               (downpaths.empty() ? "<downpath>h/" + name + "</downpath>" : downpaths) + "</file>";
    }
    static std::string App(const std::string& name, const std::string& body) {
        return "<app name=\"" + name + "\">" + body + "</app>";
    }
    static std::string Files(const std::vector<std::string>& names) {
        std::string body = "<filecnt>" + std::to_string(names.size()) + "</filecnt>";
        for (const std::string& name : names) body += File(name);
        return body;
    }
    int RegisterWith(uint32_t flags, const std::string& name = "alpha", bool save_path = true) {
        const int app = Connect();
        RegistMessage message{};
        message.flags = flags;
        (void)text_copy(message.name, name);
        (void)text_copy(message.version, "1.0");
        if (save_path) (void)text_copy(message.save_path, save_);
        Send(app, HTTP_MSG_TYPE_REGIST, Bytes(message));
        EXPECT_EQ(Answer(app, name), 0);
        return app;
    }
    // Runs a pass of that kind over every registered app.
    UpdateStatus Pass(uint32_t kind, const std::string& apps) {
        const XmlDoc document(xml_doc_read_mem(("<filelist>" + apps + "</filelist>").c_str()));
        AppSet set{};
        reg_app_all(&set);
        update_progress_reset(kind);
        update_progress_set_mask(set);
        return apps_down(document.get(), set);
    }
    UpdateStatus Result(uint32_t kind, const std::string& body) {
        EXPECT_EQ(Pass(kind, App("alpha", body)), UPDATE_OK);
        return update_progress_result(0);
    }
    bool Saved(const std::string& name) { return std::filesystem::exists(save_ + name); }
    std::string SavedNames() {
        std::string names;
        for (const char* name : {"a", "b", "c"})
            if (Saved(name)) names += name;
        return names;
    }
    // Base names of the files in the next update request; "-" without one.
    std::string Requested(int app) {
        const auto [type, payload] = Receive(app);
        if (type != HTTP_MSG_TYPE_UPDATE_REQ) return "-";
        std::string names;
        size_t at = 36;
        for (int left = payload[32]; left > 0; left--) {
            const std::string path = payload.c_str() + at + 1;
            names += path.substr(path.rfind('/') + 1);
            at += path.size() + 2;
        }
        return names;
    }
    // Recorded files as "name:state" with + fetched, ! failed, . not fetched.
    std::string Recorded() {
        MutexLock guard(resume_lock);
        const ResumeApp* app = resume_next_app(&ResumeList);
        std::string names;
        if (app == nullptr) return names;
        for (const ResumeFile* file = resume_next_file(app, &app->files); file != nullptr;
             file = resume_next_file(app, file)) {
            const std::string path = file->path;
            names += path.substr(path.rfind('/') + 1);
            names += file->state == RESUME_DOWN_SUCCESS ? "+"
                     : file->state == RESUME_DOWN_FAIL  ? "!"
                                                        : ".";
        }
        return names;
    }

    std::string save_;
    std::map<std::string, int> codes_;
};

TEST_F(AppsDown, FetchesAndHandsOver) {
    const int app = RegisterWith(0);
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, Files({"a", "b"})), UPDATE_OK);
    EXPECT_EQ(Requested(app), "ab");
    EXPECT_EQ(SavedNames(), "ab");
    EXPECT_EQ(First().flags, APP_FLAG_BUSY);
    EXPECT_EQ(fakes::Terminal(),
              "Downloading updated files, please wait...\nPress Ctrl+C to quit\n");
    const UpdateProgress progress = update_progress_copy();
    EXPECT_EQ(progress.file_num, 2u);
    EXPECT_EQ(progress.down_num, 2u);
    EXPECT_EQ(progress.cur_file, save_ + "b");
    EXPECT_EQ(progress.down_size, 9u);
    for (const fakes::Download& download : fakes::Downloads()) EXPECT_EQ(download.flag, 0u);

    EXPECT_EQ(Result(UPDATE_RUN_DAILY, "<filecnt>0</filecnt>"), UPDATE_OK);
    EXPECT_EQ(Requested(app), "") << "no files, but a request";
    EXPECT_EQ(fakes::Terminal(), "");
    EXPECT_EQ(Pass(UPDATE_RUN_DAILY, ""), UPDATE_OK);
    EXPECT_EQ(update_progress_result(0), UPDATE_BAD_REPLY) << "no element for the app";
    EXPECT_EQ(update_progress_result(7), UPDATE_BAD_REPLY) << "a free slot";
    EXPECT_EQ(apps_down(nullptr, AppSet{}), UPDATE_BAD_REPLY);
}

TEST_F(AppsDown, OneFileAppGetsTheFirst) {
    const int app = RegisterWith(APP_FLAG_ONE_FILE);
    EXPECT_EQ(Result(UPDATE_RUN_BACKGROUND, Files({"a", "b", "c"})), UPDATE_OK);
    EXPECT_EQ(Requested(app), "a");
    EXPECT_EQ(SavedNames(), "a");
}

TEST_F(AppsDown, UnusableElementsTouchNothing) {
    dir_.Write("outside", "precious");
    dir_.Write("savef", "precious");
    RegisterWith(0);
    struct Row {
        const char* name;
        std::string body;
    };
    const std::vector<std::string> many(101, "a");
    for (const Row& row : {Row{"no count", File("a")},
                           {"too many", Files(many)},
                           {"fewer names than the count", "<filecnt>2</filecnt>" + File("a")},
                           {"slash", "<filecnt>2</filecnt>" + File("../outside") + File("outside")},
                           {"slash inside", Files({"a", "sub/b"})},
                           {"name too long", Files({"a", std::string(250, 'n')})}}) {
        for (const uint32_t kind : {UPDATE_RUN_COMMAND, UPDATE_RUN_DAILY}) {
            SCOPED_TRACE(row.name);
            EXPECT_EQ(Result(kind, row.body), UPDATE_BAD_REPLY);
            EXPECT_TRUE(fakes::Downloads().empty());
            EXPECT_EQ(Recorded(), "");
        }
    }
    EXPECT_EQ(dir_.Read("outside"), "precious");

    // Without a slash at its end the save path would become part of the name.
    EXPECT_EQ(reg_app_set_savepath("alpha", dir_ / "save"), 0);
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, "<filecnt>2</filecnt>" + File("f") + File("savef")),
              UPDATE_BAD_REPLY);
    EXPECT_EQ(dir_.Read("savef"), "precious");
}

TEST_F(AppsDown, SavePathOfTheReplyServesAppsWithoutOne) {
    const int app = RegisterWith(0, "alpha", false);
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, Files({"a"})), UPDATE_BAD_REPLY);
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, "<savepath> \t" + save_ + "\n</savepath>" + Files({"a"})),
              UPDATE_OK);
    EXPECT_EQ(Requested(app), "a");
    EXPECT_EQ(SavedNames(), "a");
}

TEST_F(AppsDown, DownloadCodesBecomeResults) {
    RegisterWith(0);
    const std::string two_sources =
        "<filecnt>1</filecnt>" + File("a", "<downpath>one</downpath><downpath>two</downpath>");
    struct Row {
        int code;
        UpdateStatus result;
        size_t sources;  // tried
    };
    for (const Row& row : {Row{0, UPDATE_OK, 1},
                           {11, UPDATE_OK, 1},
                           {20, UPDATE_CANCELLED, 1},
                           {8, UPDATE_NO_STORAGE, 1},
                           {1, UPDATE_NO_MEMORY, 1},
                           {2, UPDATE_DOWNLOAD_FAIL, 2},
                           {-1, UPDATE_DOWNLOAD_FAIL, 2}}) {
        SCOPED_TRACE(row.code);
        codes_ = {{"a", row.code}};
        EXPECT_EQ(Result(UPDATE_RUN_BACKGROUND, two_sources), row.result);
        EXPECT_EQ(fakes::Downloads().size(), row.sources);
    }
}

TEST_F(AppsDown, SourcesAreTriedInOrder) {
    RegisterWith(0);
    fakes::ScriptDownloads([](DownloadCtx*, const fakes::Download&) { return 5; });
    std::string paths =
        "<downpath> \n</downpath><downpath> http://h/x </downpath>"
        "<downpath>HTTP://h</downpath><downpath>" +
        std::string(300, 'u') + "</downpath>";
    for (int i = 5; i <= 11; i++) paths += "<downpath>p" + std::to_string(i) + "</downpath>";
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, "<filecnt>1</filecnt>" + File("a", paths)),
              UPDATE_DOWNLOAD_FAIL);
    std::vector<std::string> urls;
    for (const fakes::Download& download : fakes::Downloads()) urls.push_back(download.url);
    EXPECT_EQ(urls,
              (std::vector<std::string>{"http://h/x", "http://HTTP://h",
                                        "http://" + std::string(248, 'u'), "http://p5", "http://p6",
                                        "http://p7", "http://p8", "http://p9", "http://p10"}));
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, "<filecnt>1</filecnt>" + File("a", "<other/>")),
              UPDATE_DOWNLOAD_FAIL);
}

TEST_F(AppsDown, SourceAddressGoesAlong) {
    RegisterWith(0);
    src_ip_set("127.0.0.2");
    EXPECT_EQ(Result(UPDATE_RUN_DAILY, Files({"a"})), UPDATE_OK);
    const std::vector<fakes::Download> downloads = fakes::Downloads();
    ASSERT_EQ(downloads.size(), 1u);
    EXPECT_EQ(downloads[0].source, "127.0.0.2");
    EXPECT_EQ(downloads[0].flag, 1u);
    src_ip_set("no address");
    EXPECT_EQ(Result(UPDATE_RUN_BACKGROUND, Files({"a"})), UPDATE_DOWNLOAD_FAIL);
    EXPECT_TRUE(fakes::Downloads().empty());
}

TEST_F(AppsDown, OperatorRunDeletesWhatItFetched) {
    RegisterWith(APP_FLAG_INCREMENTAL);
    codes_ = {{"b", 2}};
    EXPECT_EQ(Result(UPDATE_RUN_BACKGROUND, Files({"a", "b", "c"})), UPDATE_DOWNLOAD_FAIL);
    EXPECT_EQ(SavedNames(), "");
    EXPECT_EQ(Recorded(), "");
}

// The file at the failed place and what becomes of everything.
TEST_F(AppsDown, FailureOfAnUnattendedRunIsRecorded) {
    struct Row {
        const char* name;
        uint32_t flags;
        uint32_t kind;
        int retries;
        const char* failing;
        int code;
        const char* requested;
        const char* recorded;
        const char* saved;
        int retries_after;
    };
    constexpr uint32_t incremental = APP_FLAG_INCREMENTAL;
    for (const Row& row : {
             Row{"daily", 0, UPDATE_RUN_DAILY, 2, "b", 2, "-", "a+b!c.", "ab", 5},
             {"daily, disk full", 0, UPDATE_RUN_DAILY, 5, "b", 8, "-", "a+b!c.", "a", 5},
             {"incremental", incremental, UPDATE_RUN_DAILY, 1, "b", 2, "a", "b!c.", "ab", 5},
             {"incremental, first", incremental, UPDATE_RUN_DAILY, 5, "a", 2, "-", "a!b.c.", "a",
              5},
             {"resume", 0, UPDATE_RUN_RESUME, 2, "b", 2, "-", "a+b!c.", "ab", 2},
             {"resume, budget gone", 0, UPDATE_RUN_RESUME, 0, "b", 2, "-", "", "", 0},
             {"resume, incremental, budget gone", incremental, UPDATE_RUN_RESUME, 0, "b", 2, "a",
              "", "a", 0},
         }) {
        SCOPED_TRACE(row.name);
        TearDown();
        SetUp();
        std::filesystem::remove_all(save_);
        std::filesystem::create_directories(save_);
        const int app = RegisterWith(row.flags);
        if (row.kind == UPDATE_RUN_RESUME) {
            FilenameArray paths = filename_malloc(3);
            for (int i = 0; i < 3; i++)
                (void)snprintf(paths[i], FILENAME_SIZE, "%s%c", save_.c_str(), 'a' + i);
            ASSERT_EQ(resume_add("alpha", paths, 3, 0, false), 0);
            filename_free(paths, 3);
        }
        resume_retry_count = row.retries;
        codes_ = {{row.failing, row.code}};
        EXPECT_EQ(Result(row.kind, Files({"a", "b", "c"})),
                  row.code == 8 ? UPDATE_NO_STORAGE : UPDATE_DOWNLOAD_FAIL);
        EXPECT_EQ(Requested(app), row.requested);
        EXPECT_EQ(Recorded(), row.recorded);
        EXPECT_EQ(SavedNames(), row.saved);
        EXPECT_EQ(resume_retry_count, row.retries_after);
        EXPECT_EQ(dir_.Read("d/oam/http_client/http_recode.txt").find("alpha") != std::string::npos,
                  row.recorded[0] != '\0');
        codes_ = {};
    }
}

TEST_F(AppsDown, ResumeRunUsesStoredPaths) {
    const int app = RegisterWith(0);
    codes_ = {{"b", 2}};
    EXPECT_EQ(Result(UPDATE_RUN_DAILY, Files({"a", "b"})), UPDATE_DOWNLOAD_FAIL);
    codes_ = {};
    EXPECT_EQ(reg_app_set_savepath("alpha", dir_ / "elsewhere/"), 0);
    EXPECT_EQ(Result(UPDATE_RUN_RESUME, Files({"a", "b"})), UPDATE_OK);
    EXPECT_EQ(Requested(app), "ab");
    EXPECT_EQ(SavedNames(), "ab");
    EXPECT_EQ(Recorded(), "");
    EXPECT_EQ(Result(UPDATE_RUN_RESUME, Files({"a"})), UPDATE_NO_MEMORY) << "no entry any more";
}

TEST_F(AppsDown, AppThatCantBeToldLosesItsFiles) {
    const int app = RegisterWith(0);
    fakes::ScriptDownloads([&](DownloadCtx* context, const fakes::Download& download) {
        Disconnect(app);
        return Fetch(context, download);
    });
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, Files({"a"})), UPDATE_NOTIFY_FAIL);
    EXPECT_EQ(SavedNames(), "");
}

TEST_F(AppsDown, CtrlCEndsTheForegroundPass) {
    RegisterWith(0, "alpha");
    RegisterWith(0, "beta");
    fakes::ScriptDownloads([](DownloadCtx* context, const fakes::Download&) {
        context->total = 100000;
        for (int32_t i = 1; i <= 3; i++) {
            context->received += 10000;
            if (i == 2) fakes::TypeKey('x');
            if (i == 3) fakes::TypeKey(CLI_KEY_CTRL_C);
            if (context->progress(context, i == 1 ? 0 : 10000) != 0) return HTTP_DOWNLOAD_CANCELLED;
        }
        return HTTP_DOWNLOAD_OK;
    });
    const std::string apps = App("alpha", Files({"a"})) + App("beta", Files({"b"}));
    EXPECT_EQ(Pass(UPDATE_RUN_COMMAND, apps), UPDATE_OK);
    EXPECT_EQ(fakes::Terminal(),
              "Downloading updated files, please wait...\nPress Ctrl+C to quit\n."
              "Download fail, Operation canceled\r\n");
    EXPECT_EQ(update_progress_result(0), UPDATE_CANCELLED);
    EXPECT_EQ(update_progress_result(1), UPDATE_NOT_STARTED);
    EXPECT_EQ(fakes::Downloads().size(), 1u);
    EXPECT_EQ(down_progress_show(nullptr, 1), -1);
}
