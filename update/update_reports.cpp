// The operator's reports. Each begins with a copy of what it shows and then only prints:
// a slow terminal holds no lock. What came from servers or apps goes through ShownText.
#include "update/update_reports.h"

#include "base/shown_text.h"
#include "base/text.h"
#include "config/server_list.h"
#include "config/settings.h"
#include "frame/identity.h"
#include "frame/report.h"
#include "registry/app_registry.h"
#include "update/progress.h"

// The registered app in a slot, when the pass is about it.
static bool pass_app_get(const UpdateProgress& progress, int slot, AppEntry* entry) {
    return reg_app_get(slot, entry) == 0 && app_set_contains(progress.app_mask, slot);
}

static void progress_print_apps(const UpdateProgress& progress, int output) {
    char text[640] = {};
    size_t length = 0;
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (pass_app_get(progress, slot, &entry)) {
            (void)text_appendf(text, sizeof(text), &length, " %s,", ShownText(entry.name).get());
        }
    }
    if (length > 0) text[length - 1] = '.';  // over the last comma, or the cut
    report_printf(output, "update-app:");
    report_printf(output, "%s\n", text);
}

static void progress_print_current(const UpdateProgress& progress, int output) {
    AppEntry entry;
    if (!pass_app_get(progress, static_cast<int>(progress.current_app), &entry)) {
        report_printf(output, "current-app: \n");
        return;
    }
    report_printf(output, "current-app: %s\n", ShownText(entry.name).get());
    report_printf(output, "file_num: %d\n", static_cast<int>(progress.file_num));
    report_printf(output, "down_num: %d\n", static_cast<int>(progress.down_num));
    report_printf(output, "cur_file: %s\n", ShownText(progress.cur_file).get());
    report_printf(output, "file_size: %lu\n", progress.file_size);
    report_printf(output, "down_size: %lu\n", progress.down_size);
}

void update_progress_print(int output) {
    const UpdateProgress progress = update_progress_copy();
    if (progress.state == UPDATE_STATE_FREE) {
        report_printf(output, "state: free\n");
    } else {
        report_printf(output, "state: running\n");
    }
    progress_print_apps(progress, output);
    progress_print_current(progress, output);
    report_printf(output, "----------------------------------\n");
    report_printf(output, "updated-result:\n");
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (pass_app_get(progress, slot, &entry)) {
            report_printf(output, "%s: %s\r\n", ShownText(entry.name).get(),
                          update_status_str(progress.results[slot]));
        }
    }
}

static void test_print_servers(int output) {
    OwnedServerList servers;
    if (hu_serv_list_copy(&servers, SERVERS_BOTH) != 0) {
        report_printf(output, "update server:\n");
        report_printf(output, "update port:\n");
        return;
    }
    for (const UpdateServer* server = hu_serv_list_first(&servers); server != nullptr;
         server = hu_serv_list_next(&servers, server)) {
        report_printf(output, "update server:  %s\n", server->host);
        report_printf(output, "update port:    %d\n", static_cast<int>(server->port));
        report_printf(output, "update uri:     %s\n", server->uri);
    }
}

void update_test_print(int output) {
    const int32_t mode = update_mode.load(std::memory_order_relaxed);
    if (mode == UPDATE_MODE_MANUAL) report_printf(output, "update mode:    manual\n");
    if (mode == UPDATE_MODE_AUTO) report_printf(output, "update mode:    auto-update\n");
    test_print_servers(output);
    const DailyTime time = update_time_get();
    report_printf(output, "update time:    %02d:%02d\n", time.update_hour, time.update_minute);
    const DeviceIdentity identity = device_identity_copy();
    report_printf(output, "pro SerialNo:   %s\n", identity.serial_number);
    report_printf(output, "pro Name:       %s\n", identity.product_name);
    report_printf(output, "software:       %s\n", identity.software_version);
    report_printf(output, "hardware:       %s\n", identity.hardware_version);
    report_printf(output, "mac:            %s\n", identity.mac_address);
    report_printf(output, "update source_ip:  %s\n", src_ip_get().update_src_ip);
    app_table_print(output);
}

void app_table_print(int output) {
    report_printf(output, "app-id     app-name      version            status\n");
    report_printf(output, "------ --------------- -------------------- ------\n");
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (reg_app_get(slot, &entry) != 0) continue;
        const bool busy = (entry.flags & APP_FLAG_BUSY) != 0;
        // Five fields under four headings: the connection stands before the app's id.
        report_printf(output, "%-6d %-6d %-15.15s %-20.20s %-6s\n", entry.fd, slot,
                      ShownText(entry.name).get(), ShownText(entry.version).get(),
                      busy ? "busy" : "free");
    }
}

void app_version_print() {
    constexpr int output = REPORT_TERMINAL;
    report_printf(output,
                  "app-id             app-name                        version           \n");
    report_printf(output,
                  "------ ------------------------------- ------------------------------\n");
    for (int slot = 0; slot < APP_REG_MAX; ++slot) {
        AppEntry entry;
        if (reg_app_get(slot, &entry) != 0) continue;
        report_printf(output, "%-6d %-31.31s %-31.31s\n", slot, ShownText(entry.name).get(),
                      entry.version[0] == '\0' ? "unknown" : ShownText(entry.version).get());
    }
}
