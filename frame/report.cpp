// The platform gives two calls for the same text, one a destination; which of them it
// is, is decided here and nowhere else.
#include "frame/report.h"

#include <cstdarg>
#include <cstdio>

#include "frame/platform/client_new.h"
#include "frame/platform/tech_support_msg.h"

void report_printf(int output, const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (output == REPORT_TERMINAL) {
        cli_printf("%s", text);
    } else {
        tech_module_msg_output("%s", text);
    }
}
