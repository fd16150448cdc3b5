// A server's pass over its apps: what is fetched, handed over, kept, recorded
// and deleted. Downloads by script, apps over real sockets.
#include "update/app_download.h"

#include "config/settings.h"
#include "frame/report.h"
#include "http/check_version.h"
#include "http/xml.h"
#include "tests/registry/registry_fixture.h"
#include "tests/resume/resume_fixture.h"
#include "update/progress.h"
#include "update/update_reports.h"

class AppsDown : public RegistryServerTest {
  protected:
    void SetUp() override {
        RegistryServerTest::SetUp();
        resume_init();
        src_ip_set(SRC_IP_NONE);
        app_ = Connect();
        EXPECT_EQ(Register(app_, "alpha", save_), 0);
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

    static std::string File(const std::string& name, const std::string& downpaths) {
        return "<file name=\"" + name + "\">" + downpaths + "</file>";
    }
    static std::string Files(const Names& names) {
        std::string body = "<filecnt>" + std::to_string(names.size()) + "</filecnt>";
        for (const std::string& name : names) body += File(name, "<downpath>h/x</downpath>");
        return body;
    }
    // alpha's result of a pass of that kind.
    UpdateStatus Result(UpdateRunKind kind, const std::string& body) {
        const XmlDoc document(xml_doc_read_mem(
            ("<filelist><app name=\"alpha\">" + body + "</app></filelist>").c_str()));
        AppSet set{};
        reg_app_all(&set);
        update_progress_reset(kind);
        update_progress_set_mask(set);
        EXPECT_EQ(apps_down(document.get(), set, kind), UPDATE_OK);
        return update_progress_copy().results[0];
    }
    // Base names of the files in the next update request; "-" without one.
    std::string Requested() {
        const auto [type, payload] = Receive(app_);
        if (type != HTTP_MSG_TYPE_UPDATE_REQ) return "-";
        std::string names;
        size_t at = 36;
        for (int left = payload[32]; left > 0; --left) {
            const std::string path = payload.c_str() + at + 1;
            names += path.substr(path.rfind('/') + 1);
            at += path.size() + 2;
        }
        return names;
    }

    // Requested|listed for resuming|on disk|retries left.
    std::string After() {
        return Requested() + "|" + ResumeListed() + "|" + OnDisk({"save/a", "save/b", "save/c"}) +
               "|" + std::to_string(resume_retry_count);
    }

    const std::string save_ = dir_ / "save/";
    int app_ = -1;
    std::map<std::string, int> codes_;
};

TEST_F(AppsDown, DownloadCodesBecomeResults) {
    const std::string two_sources =
        "<filecnt>1</filecnt>" + File("a", "<downpath>one</downpath><downpath>two</downpath>");
    for (const auto& [code, result, sources_tried] : {std::tuple(11, UPDATE_OK, 1U),
                                                      {20, UPDATE_CANCELLED, 1},
                                                      {8, UPDATE_NO_STORAGE, 1},
                                                      {1, UPDATE_NO_MEMORY, 1},
                                                      {-1, UPDATE_DOWNLOAD_FAIL, 2}}) {
        codes_ = {{"a", code}};
        EXPECT_EQ(Result(UPDATE_RUN_BACKGROUND, two_sources), result) << code;
        EXPECT_EQ(fakes::Downloads().size(), sources_tried) << code;
    }
}

TEST_F(AppsDown, SourcesAreTriedInOrder) {
    codes_ = {{"a", 5}};
    std::string paths = "<downpath> \n</downpath><downpath> http://h/x </downpath><downpath>";
    paths += "HTTP://h</downpath><downpath>" + std::string(300, 'u') + "</downpath>";
    for (int i = 5; i <= 11; ++i) paths += "<downpath>p" + std::to_string(i) + "</downpath>";
    const std::string body = "<filecnt>1</filecnt>" + File("a", paths);
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, body), UPDATE_DOWNLOAD_FAIL);
    std::string urls;
    for (const fakes::Download& download : fakes::Downloads()) urls += download.url.substr(7) + " ";
    EXPECT_EQ(urls, "h/x HTTP://h " + std::string(248, 'u') + " p5 p6 p7 p8 p9 p10 ");
    src_ip_set("127.0.0.2");
    EXPECT_EQ(Result(UPDATE_RUN_DAILY, body), UPDATE_DOWNLOAD_FAIL);
    const fakes::Download download = fakes::Downloads().back();
    EXPECT_EQ(download.source, "127.0.0.2");
    EXPECT_EQ(download.flag, 1u);
}

// What becomes of everything when one of three files fails.
TEST_F(AppsDown, FailureIsRecordedUnlessAnOperatorWatches) {
    constexpr uint32_t parts = APP_FLAG_INCREMENTAL;
    struct Row {
        const char* name;
        uint32_t flags;
        UpdateRunKind kind;
        int retries;
        const char* failing;
        int code;
        const char* after;
    };
    for (const Row& row : {
             Row{"daily", 0, UPDATE_RUN_DAILY, 2, "b", 2, "-|alpha(3) a=0 b=-1 c=1|ab|5"},
             {"disk full", 0, UPDATE_RUN_DAILY, 5, "b", 8, "-|alpha(3) a=0 b=-1 c=1|a|5"},
             {"in parts", parts, UPDATE_RUN_DAILY, 1, "b", 2, "a|alpha(2) b=-1 c=1|ab|5"},
             {"in parts, first", parts, UPDATE_RUN_DAILY, 5, "a", 2, "-|alpha(3) a=-1 b=1 c=1|a|5"},
             {"resume", 0, UPDATE_RUN_RESUME, 2, "b", 2, "-|alpha(3) a=0 b=-1 c=1|ab|2"},
             {"budget gone", 0, UPDATE_RUN_RESUME, 0, "b", 2, "-|||0"},
             {"in parts, budget gone", parts, UPDATE_RUN_RESUME, 0, "b", 2, "a||a|0"},
             {"operator", parts, UPDATE_RUN_BACKGROUND, 5, "b", 2, "-|||5"},
         }) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove_all(save_);
        std::filesystem::create_directories(save_);
        resume_clear();
        Paths paths(dir_ / "save", {"a", "b", "c"});
        if (row.kind == UPDATE_RUN_RESUME)
            (void)resume_add("alpha", paths.array.data(), paths.count(), 0, false);
        {
            WriteLock lock(app_registry_lock);
            reg_app_find_mutable("alpha")->flags = row.flags;
        }
        resume_retry_count = row.retries;
        codes_ = {{row.failing, row.code}};
        EXPECT_EQ(Result(row.kind, Files({"a", "b", "c"})),
                  row.code == 8 ? UPDATE_NO_STORAGE : UPDATE_DOWNLOAD_FAIL);
        EXPECT_EQ(After(), row.after);
        const bool listed = !resume_empty();
        resume_init();  // the file says the same
        EXPECT_EQ(!resume_empty(), listed);
    }
}

TEST_F(AppsDown, ResumeRunUsesStoredPaths) {
    const auto daily_run_fails = [this] {
        reg_app_update_result("alpha", "", 0);
        codes_ = {{"b", 2}};
        EXPECT_EQ(Result(UPDATE_RUN_DAILY, Files({"a", "b"})), UPDATE_DOWNLOAD_FAIL);
        EXPECT_EQ(ResumeListed(), "alpha(2) a=0 b=-1");
        codes_ = {};
    };
    daily_run_fails();
    EXPECT_EQ(Result(UPDATE_RUN_COMMAND, Files({"b"})), UPDATE_OK);
    EXPECT_EQ(After(), "b||b|5") << "the operator was faster, a is of no use any more";

    daily_run_fails();
    EXPECT_EQ(reg_app_set_savepath("alpha", dir_ / "elsewhere/"), 0);
    EXPECT_EQ(Result(UPDATE_RUN_RESUME, Files({"a", "b"})), UPDATE_OK);
    EXPECT_EQ(After(), "ab||ab|5");
    EXPECT_EQ(Result(UPDATE_RUN_RESUME, Files({"a"})), UPDATE_NO_MEMORY) << "no entry any more";
}

TEST_F(AppsDown, ReportsSizesBeyond32BitsAndAppsThatHaveLeft) {
    fakes::ScriptDownloads([](DownloadCtx* context, const fakes::Download&) {
        context->total = 5000000000;
        context->received = 4999999999;
        context->progress(context, 1);
        update_progress_print(REPORT_TECH_SUPPORT);
        return -1;
    });
    (void)Result(UPDATE_RUN_COMMAND, Files({"a"}));
    EXPECT_HAS(fakes::TechOutput(), "\nfile_size: 5000000000\ndown_size: 4999999999\n");
    AppSet updated{};
    for (const int slot : {0, 7}) app_set_insert(&updated, slot);
    output_check(XmlDoc(xml_doc_read_mem("<filelist/>")).get(), updated);
    EXPECT_HAS(fakes::Terminal(), "need to be updated: alpha.\n");
}
