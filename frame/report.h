// Output of the operator's reports: one report function serves the terminal and
// the technical-support reply.
// Threads: as cli_printf and tech_module_msg_output.
#pragma once

constexpr int REPORT_TECH_SUPPORT = 0;
constexpr int REPORT_TERMINAL = 1;

// Text of at most 1023 characters to REPORT_TERMINAL or REPORT_TECH_SUPPORT.
[[gnu::format(printf, 2, 3)]] void report_printf(int output, const char* format, ...);
