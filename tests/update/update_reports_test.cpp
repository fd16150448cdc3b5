#include "update/update_reports.h"

#include "config/server_list.h"
#include "config/settings.h"
#include "frame/report.h"
#include "tests/registry/registry_fixture.h"
#include "tests/resume/resume_fixture.h"
#include "update/progress.h"

struct UpdateReports : RegistryServerTest {
    // Registers the apps; the reports are about them all.
    void Begin(UpdateRunKind kind, const Names& names) {
        const int app = Connect();
        for (const std::string& name : names) EXPECT_EQ(Register(app, name), 0);
        AppSet all{};
        reg_app_all(&all);
        update_progress_reset(kind);
        update_progress_set_mask(all);
    }
};

TEST_F(UpdateReports, ResultsOfAPassByKind) {
    Begin(UPDATE_RUN_COMMAND, {"a", "b", "c"});
    update_progress_set_result(0, UPDATE_OK);
    update_progress_set_result(1, UpdateStatus(99));
    update_progress_set_result(2, UPDATE_OK);
    DebugMask = DEBUG_INFO;
    fakes::Syslog();
    const std::string lines = "b: Unknown error.\na, c: download and notify successfully.\n";
    update_result_output(UPDATE_RUN_COMMAND);
    EXPECT_EQ(fakes::Terminal() + "|" + fakes::Syslog(), lines + "|");
    update_result_output(UPDATE_RUN_BACKGROUND);
    EXPECT_EQ(fakes::Terminal() + "|" + fakes::Syslog(), "|" + lines);
}

TEST_F(UpdateReports, ReportsForTechnicalSupport) {
    Begin(UPDATE_RUN_DAILY, {"sixteen-letters-"});
    hu_serv_config_init();
    update_progress_set_sizes(5000000000, 4999999999);
    update_progress_print(REPORT_TECH_SUPPORT);
    EXPECT_HAS(fakes::TechOutput(), "\nfile_size: 5000000000\ndown_size: 4999999999\n");
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
