// The driver over real connections to scripted servers, the operator's commands
// and the reports.
#include "update/update_run.h"

#include "config/server_list.h"
#include "config/settings.h"
#include "frame/report.h"
#include "resume/resume_list.h"
#include "tests/http/reply_server.h"
#include "tests/registry/registry_fixture.h"
#include "update/progress.h"
#include "update/update_commands.h"
#include "update/update_reports.h"

class UpdateRun : public RegistryServerTest {
  protected:
    void SetUp() override {
        RegistryServerTest::SetUp();
        hu_serv_config_init();
        update_progress_init();
        s_reports.clear();
    }
    static void Configure(const ReplyServer& server, bool second = true) {
        ASSERT_EQ(hu_serv_config_add("127.0.0.1", server.port(), nullptr, second), HU_SERV_OK);
    }
    static void Report(const AppSet&, uint32_t kind, const char* host, UpdateStatus status) {
        s_reports += std::to_string(kind) + " " + host + " " + std::to_string(status) + "\n";
    }
    UpdateStatus Run(uint32_t kind, unsigned selector) {
        AppSet all{};
        reg_app_all(&all);
        return http_update_run(all, kind, Report, selector);
    }
    // Runs a command to its end.
    std::string Command(void (*handler)(cli_record*), bool all, const char* names,
                        uint32_t second = 0) {
        cli_record record{};
        record.value1 = all ? 1 : 0;
        record.context = second;
        (void)text_copy(record.string1, names);
        const int ended = fakes::CommandsEnded();
        handler(&record);
        if (handler == http_update_cmd)
            while (fakes::CommandsEnded() == ended) usleep(1000);
        return fakes::Terminal();
    }

    static std::string s_reports;
};
std::string UpdateRun::s_reports;

static std::string Reply(const std::string& apps) {
    return Ok("<filelist>" + apps + "</filelist>");
}

TEST_F(UpdateRun, AsksEveryServerInOrder) {
    const int app = Connect();
    EXPECT_EQ(Register(app, "alpha", dir_ / "save/"), 0);
    EXPECT_EQ(http_update_run(AppSet{}, UPDATE_RUN_DAILY, Report, SERVERS_BOTH), UPDATE_NO_APPS);
    ReplyServer updates({Reply("<app name=\"alpha\"><filecnt>0</filecnt></app>")});
    ReplyServer latest({Reply("<app name=\"other\"/>")});
    ReplyServer garbage({Ok("no document")});
    Configure(updates);
    Configure(latest);
    Configure(garbage, false);
    EXPECT_EQ(Run(UPDATE_RUN_DAILY, SERVERS_BOTH), UPDATE_OK);
    // The first pass made the app busy: the second can't ask about it.
    EXPECT_EQ(s_reports, "0 127.0.0.1 0\n0 127.0.0.1 9\n0 127.0.0.1 9\n");
    EXPECT_EQ(updates.Requests().size(), 1u);
    reg_app_update_result("alpha", "", 0);
    EXPECT_EQ(update_progress_result(0), UPDATE_NOT_STARTED) << "the record shows the last pass";
    EXPECT_FALSE(update_state_is_running());

    s_reports.clear();
    ReplyServer again({Reply("<app name=\"other\"/>"), Ok("no document")});
    (void)hu_serv_config_del("", 0, "", true);
    Configure(again);
    EXPECT_EQ(Run(UPDATE_RUN_RESUME, SERVERS_SECOND), UPDATE_OK);
    EXPECT_EQ(Run(UPDATE_RUN_RESUME, SERVERS_SECOND), UPDATE_OK);
    EXPECT_EQ(s_reports, "2 127.0.0.1 10\n2 127.0.0.1 8\n");
}

TEST_F(UpdateRun, OnlyOneRunAtATime) {
    EXPECT_EQ(Register(Connect(), "alpha"), 0);
    ASSERT_TRUE(update_state_claim());
    EXPECT_EQ(Run(UPDATE_RUN_DAILY, SERVERS_SECOND), UPDATE_RUNNING);
    const std::string busy =
        "%notice: There are business modules in the upgrading, "
        "please wait for a moment.\n";
    EXPECT_EQ(Command(http_update_cmd, true, ""), busy);
    EXPECT_EQ(Command(http_update_background_cmd, true, ""), busy);
    update_state_release();
}

TEST_F(UpdateRun, CommandsSayWhatTheyDid) {
    const std::string no_apps = "%notice: No bussiness modules registration.\n";
    const std::string unknown = "%notice: The bussiness modules haven't registered.\n";
    for (auto* handler : {http_update_cmd, http_update_background_cmd}) {
        EXPECT_EQ(Command(handler, true, ""), no_apps);
        EXPECT_EQ(Command(handler, false, "alpha"), unknown);
        EXPECT_EQ(Command(handler, false, "12345678901234567890123456789012"), unknown);
    }
    EXPECT_EQ(Register(Connect(), "alpha", dir_ / "save/"), 0);
    EXPECT_EQ(Register(Connect(), "beta", dir_ / "save/"), 0);
    ReplyServer server({Reply("<app name=\"alpha\"><filecnt>0</filecnt></app>"
                              "<app name=\"beta\"/>"),
                        "HTTP/1.0 500 no\r\n\r\n"});
    Configure(server);
    EXPECT_EQ(Command(http_update_cmd, false, " alpha  beta nobody", 1),
              "Downloading updated files, please wait...\n"
              "Update module with server 127.0.0.1:\r\n"
              "beta: The server response message format is wrong.\n"
              "alpha: download and notify successfully.\n");
    reg_app_update_result("alpha", "", 0);
    EXPECT_EQ(Command(http_update_cmd, true, "", 1),
              "Update module with server 127.0.0.1:\r\n"
              "%notice: Communicate with the server failed.\n");
    DebugMask = DEBUG_ERROR | DEBUG_INFO;
    fakes::Syslog();
    EXPECT_EQ(Command(http_update_background_cmd, false, "beta"),
              "Successfully into the background.\n");
    std::string log;
    while ((log += fakes::Syslog()).find("%notice: Communicate with the server failed.\n") ==
           std::string::npos)
        usleep(1000);
    while (update_state_is_running()) usleep(1000);
    EXPECT_EQ(fakes::Terminal(), "");
}

TEST_F(UpdateRun, ResultsOfAPassByKind) {
    std::vector<std::string> names;
    for (int i = 0; i < 4; i++) EXPECT_EQ(Register(Connect(), std::string(1, char('a' + i))), 0);
    update_progress_reset(UPDATE_RUN_COMMAND);
    AppSet mask{};
    for (const int slot : {0, 1, 3, 9}) app_set_insert(&mask, slot);
    update_progress_set_mask(mask);
    update_progress_set_result(0, UPDATE_OK);
    update_progress_set_result(1, UPDATE_DOWNLOAD_FAIL);
    update_progress_set_result(3, UPDATE_OK);
    DebugMask = DEBUG_INFO;
    fakes::Syslog();
    update_result_output(UPDATE_RUN_COMMAND);
    EXPECT_EQ(fakes::Terminal(), "b: Download failed.\na, d: download and notify successfully.\n");
    EXPECT_EQ(fakes::Syslog(), "");
    update_result_output(UPDATE_RUN_BACKGROUND);
    EXPECT_EQ(fakes::Syslog(), "b: Download failed.\na, d: download and notify successfully.\n");
    update_progress_set_result(0, UPDATE_CANCELLED);
    update_progress_set_result(3, 99);
    update_result_output(UPDATE_RUN_COMMAND);
    EXPECT_EQ(fakes::Terminal(),
              "a: The user cancels the upgrade process\nb: Download failed.\nd: Unknown error.\n");
    EXPECT_EQ(fakes::Syslog(), "\n");
}

TEST_F(UpdateRun, ReportsAtTheirLimits) {
    const int app = Connect();
    for (int i = 0; i < APP_REG_MAX; i++)
        EXPECT_EQ(Register(app, std::string(29, 'n') + std::to_string(10 + i)), 0);
    update_progress_reset(UPDATE_RUN_DAILY);
    AppSet all{};
    reg_app_all(&all);
    update_progress_set_mask(all);
    update_progress_begin_app(19);
    update_progress_set_sizes(5000000000, 4999999999);
    update_progress_print(REPORT_TERMINAL);
    const std::string report = fakes::Terminal();
    const size_t list = report.find("update-app:") + 11;
    EXPECT_EQ(report.find('\n', list) - list, 639u);
    EXPECT_EQ(report[list + 638], '.');
    EXPECT_NE(report.find("current-app: " + std::string(29, 'n') +
                          "29\nfile_num: 0\ndown_num: 0\ncur_file: \n"
                          "file_size: 5000000000\ndown_size: 4999999999\n"
                          "----------------------------------\nupdated-result:\n"),
              std::string::npos);
    EXPECT_EQ(std::count(report.begin(), report.end(), '\r'), APP_REG_MAX);

    fakes::Terminal();
    EXPECT_EQ(reg_app_del_by_name("none"), -1);
    for (int i = 2; i < APP_REG_MAX; i++)
        EXPECT_EQ(reg_app_del_by_name(std::string(29, 'n') + std::to_string(10 + i)), 0);
    reg_app_set_version(std::string(29, 'n') + "10", "");
    {
        WriteLock lock(app_registry_lock);
        reg_app_find(std::string(29, 'n') + "11")->flags |= APP_FLAG_BUSY;
    }
    app_version_print();
    const std::string name = std::string(29, 'n');
    EXPECT_EQ(fakes::Terminal(),
              "app-id             app-name                        version           \n"
              "------ ------------------------------- ------------------------------\n"
              "0      " +
                  name +
                  "10 unknown                        \n"
                  "1      " +
                  name + "11 1.0                            \n");
    const DailyTime time{3, 5};
    update_time_set(time);
    update_mode = UPDATE_MODE_AUTO;
    update_test_print(REPORT_TECH_SUPPORT);
    const std::string test = fakes::TechOutput();
    EXPECT_EQ(test.find("update mode:    auto-update\nupdate server:  update.invalid\n"
                        "update port:    80\nupdate uri:     /qb/11.x/update.asp\n"
                        "update time:    03:05\npro SerialNo:   "),
              0u)
        << test;
    const std::string fd = std::to_string(First().fd);
    const std::string table =
        "update source_ip:  0.0.0.0\n"
        "app-id     app-name      version            status\n"
        "------ --------------- -------------------- ------\n" +
        fd + std::string(7 - fd.size(), ' ') +
        "0      nnnnnnnnnnnnnnn                      free  \n" + fd +
        std::string(7 - fd.size(), ' ') + "1      nnnnnnnnnnnnnnn 1.0                  busy  \n";
    EXPECT_EQ(test.substr(test.size() - std::min(test.size(), table.size())), table);
}
