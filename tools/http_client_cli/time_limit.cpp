// An alarm, since a limit in each wait would miss those that are not ours. Its handler calls
// only what may be called at any point: everything it needs is ready before.
#include "time_limit.h"

#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace {

char s_line[64];
int s_length = 0;
int s_exit_status = 0;
bool s_terminal = false;
termios s_settings;
const char* volatile s_file = nullptr;

void time_is_up(int) {
    if (s_terminal) (void)tcsetattr(STDIN_FILENO, TCSANOW, &s_settings);
    if (s_file != nullptr) (void)unlink(s_file);
    (void)!write(STDERR_FILENO, s_line, static_cast<size_t>(s_length));
    _exit(s_exit_status);
}

}  // namespace

void time_limit_start(unsigned seconds, int exit_status) {
    s_length = snprintf(s_line, sizeof(s_line), "http_client_cli: not done within %u s\n", seconds);
    s_exit_status = exit_status;
    s_terminal = tcgetattr(STDIN_FILENO, &s_settings) == 0;
    (void)signal(SIGALRM, time_is_up);
    (void)alarm(seconds);
}

void time_limit_removes(const char* path) { s_file = path; }
