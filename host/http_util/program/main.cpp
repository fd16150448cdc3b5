// The download program: does the talking for libhttp_util.so, which starts it with a
// socket and no environment. It is the only part of the system that holds libcurl and
// all behind it, and reads what servers say. Before it hears of the first URL it gives
// away every right that it does not need (confine.h); files it gets open.
//
//     http_client_download --self-test
//
// gives the rights away, tries what must not succeed any more, and prints the errno of
// each attempt.

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "host/http_util/program/confine.h"
#include "host/http_util/program/session.h"

int main(int argc, char** argv) {
    const bool self_test = argc == 2 && strcmp(argv[1], "--self-test") == 0;
    if (argc > 1 && !self_test) {
        fprintf(stderr, "usage: started by libhttp_util.so, or --self-test\n");
        return 2;
    }
    (void)signal(SIGPIPE, SIG_IGN);
    (void)!chdir("/");  // only lets go of the directory
    ReadyMessage ready;
    if (!session_prepare() || !confine(&ready.not_confined)) {
        fprintf(stderr, "http_client_download: can't be confined\n");
        return 1;
    }
    if (self_test) {
        confine_try();
    } else {
        session_run(PROGRAM_SOCKET, ready);
    }
    // Nothing of a long life has to be released.
    _exit(0);
}
