// A daemon with the sample commands, for tests of http_client_cli.
#include <signal.h>
#include <stdio.h>

#include "tests/support/cli_sample.h"

int main() {
    (void)signal(SIGPIPE, SIG_IGN);
    tq_thread_master* master = tq_thread_master_create();
    if (master == nullptr || !cli_sample::start(master)) return 1;
    (void)puts("ready");
    (void)fflush(stdout);
    cli_sample::serve(master);
    return 1;
}
