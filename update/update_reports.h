// The operator's reports on updates, settings and apps. Their text is an
// interface: support tools read it.
// Threads: main loop; they read copies and change nothing. output: see
// frame/report.h.
#pragma once

// The update run in progress, else the last server pass.
void update_progress_print(int output);

// Settings, device identity and the table of registered apps.
void update_test_print(int output);
void app_table_print(int output);

// The apps' versions, to the terminal.
void app_version_print();
