// The driver over real connections to scripted servers, the background command
// and the reports.
#include "update/update_run.h"

#include "config/server_list.h"
#include "config/settings.h"
#include "frame/report.h"
#include "tests/http/reply_server.h"
#include "tests/registry/registry_fixture.h"
#include "update/progress.h"
#include "update/update_commands.h"
#include "update/update_reports.h"

static std::string s_reports;

class UpdateRun : public RegistryServerTest {
  protected:
    void SetUp() override {
        RegistryServerTest::SetUp();
        hu_serv_config_init();
        update_progress_init();
        s_reports.clear();
        app_ = Connect();
    }
    static AppSet All() {
        AppSet all{};
        reg_app_all(&all);
        return all;
    }
    static UpdateStatus Run(uint32_t kind) {
        const auto report = [](const AppSet&, uint32_t reported, const char* host,
                               UpdateStatus status) {
            s_reports +=
                std::to_string(reported) + " " + host + " " + std::to_string(status) + "\n";
        };
        return http_update_run(All(), kind, report, SERVERS_BOTH);
    }

    int app_ = -1;
};

TEST_F(UpdateRun, AsksEveryServerInOrder) {
    EXPECT_EQ(Run(UPDATE_RUN_DAILY), UPDATE_NO_APPS);
    EXPECT_EQ(Register(app_, "alpha", dir_ / "save/"), 0);
    EXPECT_EQ(Register(app_, "beta", dir_ / "save/"), 0);
    const auto reply = [](const std::string& apps) {
        return Ok("<filelist>" + apps + "</filelist>");
    };
    ReplyServer updates({reply("<app name=\"alpha\"><filecnt>0</filecnt></app>")});
    ReplyServer latest({reply("<app name=\"other\"/>")});
    ReplyServer garbage({Ok("no document")});
    for (const ReplyServer* server : {&updates, &latest, &garbage})
        ASSERT_EQ(hu_serv_config_add("127.0.0.1", server->port(), nullptr, server != &garbage),
                  HU_SERV_OK);
    EXPECT_EQ(Run(UPDATE_RUN_DAILY), UPDATE_OK);
    EXPECT_EQ(s_reports, "0 127.0.0.1 0\n0 127.0.0.1 10\n0 127.0.0.1 8\n");
    EXPECT_EQ(update_progress_result(0), UPDATE_NOT_STARTED) << "the record shows the last pass";

    ASSERT_TRUE(update_state_claim()) << "the run has released the state";
    EXPECT_EQ(Run(UPDATE_RUN_DAILY), UPDATE_RUNNING);
    update_state_release();
}

TEST_F(UpdateRun, BackgroundCommandReportsToTheLog) {
    EXPECT_EQ(Register(app_, "alpha"), 0);
    ASSERT_EQ(hu_serv_config_add("127.0.0.1", 1, nullptr, false), HU_SERV_OK);
    DebugMask = DEBUG_ERROR;
    cli_record record{};
    (void)text_copy(record.string1, "alpha");
    http_update_background_cmd(&record);
    EXPECT_EQ(fakes::Terminal(), "Successfully into the background.\n");
    std::string log;
    const auto reported = [&] { return log.find("%notice: Communicate with") != log.npos; };
    for (int i = 0; i < 20000 && (!reported() || update_state_is_running()); i++) {
        usleep(1000);
        log += fakes::Syslog();
    }
    EXPECT_TRUE(reported() && !update_state_is_running()) << log;
    EXPECT_EQ(fakes::Terminal(), "");
}

TEST_F(UpdateRun, ResultsOfAPassByKind) {
    for (const char* name : {"a", "b", "c", "d"}) EXPECT_EQ(Register(app_, name), 0);
    update_progress_reset(UPDATE_RUN_COMMAND);
    AppSet mask{};
    for (const int slot : {0, 1, 3, 9}) app_set_insert(&mask, slot);
    update_progress_set_mask(mask);
    update_progress_set_result(0, UPDATE_OK);
    update_progress_set_result(1, UPDATE_DOWNLOAD_FAIL);
    update_progress_set_result(3, UPDATE_OK);
    DebugMask = DEBUG_INFO;
    fakes::Syslog();
    const std::string lines = "b: Download failed.\na, d: download and notify successfully.\n";
    update_result_output(UPDATE_RUN_COMMAND);
    EXPECT_EQ(fakes::Terminal(), lines);
    EXPECT_EQ(fakes::Syslog(), "");
    update_result_output(UPDATE_RUN_BACKGROUND);
    EXPECT_EQ(fakes::Terminal(), "");
    EXPECT_EQ(fakes::Syslog(), lines);
    for (const int slot : {0, 3}) update_progress_set_result(slot, 99);
    update_result_output(UPDATE_RUN_COMMAND);
    EXPECT_EQ(fakes::Terminal(), "a: Unknown error.\nb: Download failed.\nd: Unknown error.\n");
    EXPECT_EQ(fakes::Syslog(), "\n");
}

TEST_F(UpdateRun, ReportsForTechnicalSupport) {
    EXPECT_EQ(Register(app_, "sixteen-letters-"), 0);
    update_progress_reset(UPDATE_RUN_DAILY);
    update_progress_set_mask(All());
    update_progress_set_sizes(5000000000, 4999999999);
    update_progress_print(REPORT_TECH_SUPPORT);
    EXPECT_EQ(fakes::TechOutput(),
              "state: free\nupdate-app: sixteen-letters-.\ncurrent-app: sixteen-letters-\n"
              "file_num: 0\ndown_num: 0\ncur_file: \n"
              "file_size: 5000000000\ndown_size: 4999999999\n"
              "----------------------------------\nupdated-result:\n"
              "sixteen-letters-: haven't started to download.\r\n");
    update_time_set({3, 5});
    update_mode = UPDATE_MODE_AUTO;
    update_test_print(REPORT_TECH_SUPPORT);
    std::string fd = std::to_string(First().fd);
    fd.resize(7, ' ');
    EXPECT_EQ(fakes::TechOutput(),
              "update mode:    auto-update\nupdate server:  update.invalid\n"
              "update port:    80\nupdate uri:     /qb/11.x/update.asp\nupdate time:    03:05\n"
              "pro SerialNo:   \npro Name:       \nsoftware:       \nhardware:       \n"
              "mac:            \nupdate source_ip:  0.0.0.0\n"
              "app-id     app-name      version            status\n"
              "------ --------------- -------------------- ------\n" +
                  fd + "0      sixteen-letters 1.0                  free  \n");
}
