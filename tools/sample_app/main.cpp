// Sample app: a business module written with nothing but the app SDK. It stands in
// for real ones in the demo and in the system tests, and shows a module's author
// the calls in their order; its output is one line a fact.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/http_update/http_update_app.h"
#include "tools/sample_app/installer.h"
#include "tools/sample_app/options.h"

namespace {

constexpr useconds_t RETRY_US = 500000;
constexpr int ENDED_BY_REQUEST = 3;

struct Session {
    const Options& options;
    http_app* app = nullptr;
    int registered = 0;     // apps the daemon has of us
    bool commands = false;  // standard input is still open
};

// Facts and file names come from a server: what could drive a terminal is shown
// as '?'.
std::string printable(const char* text) {
    std::string shown(text);
    std::replace_if(
        shown.begin(), shown.end(),
        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; }, '?');
    return shown;
}

// Registers all apps. 0, or the last result that was not 0; a negative one ends it.
int apps_register(Session* session) {
    int last = 0;
    for (const SampleApp& each : session->options.apps) {
        const http_app_info info = {each.name.c_str(), each.version.c_str(), each.save_path.c_str(),
                                    each.flags};
        const int result = http_app_register(session->app, &info);
        if (result == 0) {
            ++session->registered;
            printf("%s: registered\n", info.name);
            continue;
        }
        printf("%s: refused %d, %s\n", info.name, result, http_app_result_text(result));
        last = result;
        if (result < 0) break;
    }
    return last;
}

void answer(http_app* app, const char* name, int32_t code, const char* version) {
    const int result = http_app_answer(app, name, code, version);
    if (result == 0) {
        printf("%s: answered %d%s%s\n", name, code, version != nullptr ? ", version " : "",
               version != nullptr ? printable(version).c_str() : "");
    } else {
        printf("%s: answer fails, %s\n", name, http_app_result_text(result));
    }
}

// 0, or the errno of the first file that is not as it should be.
int32_t request_install(const http_app_request* request) {
    int32_t first_error = 0;
    for (size_t i = 0; i < request->file_count; ++i) {
        const std::string shown = printable(request->files[i]);
        InstalledFile file;
        const int error = file_install(request->files[i], &file);
        if (error == 0) {
            printf("%s: file %s, %llu bytes, sha256 %s\n", request->app, shown.c_str(),
                   static_cast<unsigned long long>(file.size_bytes), file.sha256.c_str());
        } else {
            printf("%s: file %s, %s\n", request->app, shown.c_str(), strerror(error));
            if (first_error == 0) first_error = error;
        }
    }
    // Results 0 and 1 mean success and still updating.
    return first_error == HTTP_APP_UPDATING ? EIO : first_error;
}

void deregister(Session* session, const char* name) {
    const int result = http_app_deregister(session->app, name);
    if (result == 0) --session->registered;
    printf("%s: deregistered, %s\n", name, http_app_result_text(result));
}

void request_handle(Session* session, const http_app_request* request) {
    const Options& options = session->options;
    http_app* app = session->app;
    const char* name = request->app;
    printf("%s: update request, %zu files\n", name, request->file_count);
    for (size_t i = 0; i < request->fact_count; ++i) {
        printf("%s: %s = %s\n", name, printable(request->facts[i].name).c_str(),
               printable(request->facts[i].text).c_str());
    }
    if (options.behaviour == Behaviour::Die) _exit(ENDED_BY_REQUEST);
    if (options.behaviour == Behaviour::Deregister) {
        deregister(session, name);
        return;
    }
    if (options.behaviour == Behaviour::Busy || options.behaviour == Behaviour::Slow) {
        answer(app, name, HTTP_APP_UPDATING, nullptr);
        if (options.behaviour == Behaviour::Busy) return;
        (void)sleep(options.slow_s);
    }
    int32_t code = request_install(request);
    if (code == 0) code = options.fail_code;
    answer(app, name, code, code == 0 ? http_app_find_fact(request, "version") : nullptr);
}

void command_run(Session* session, const char* line) {
    char verb[16] = "";
    char name[64] = "";
    char value[256] = "";
    if (sscanf(line, "%15s %63s %255s", verb, name, value) < 2) return;
    const std::string word(verb);
    if (word == "deregister") {
        deregister(session, name);
        return;
    }
    http_app* app = session->app;
    int result = -EINVAL;
    if (word == "version") result = http_app_set_version(app, name, value);
    if (word == "manual" || word == "auto") {
        result = http_app_set_manual(app, name, word == "manual");
    }
    if (word == "save-path") result = http_app_set_save_path(app, name, value);
    printf("%s: %s %s\n", name, verb, http_app_result_text(result));
}

// Waits for the next request or command and deals with it. Returns how many
// requests were handled (0 or 1), or a negative result.
int event_handle(Session* session) {
    // Requests that came while registering wait in the handle, not in the socket.
    http_app_request* request = nullptr;
    int result = http_app_wait(session->app, 0, &request);
    pollfd entries[2] = {{http_app_fd(session->app), POLLIN, 0},
                         {session->commands ? STDIN_FILENO : -1, POLLIN, 0}};
    if (result == 0 && poll(entries, 2, -1) > 0) {
        char line[512];
        if (entries[1].revents != 0) {
            session->commands = fgets(line, sizeof(line), stdin) != nullptr;
            if (session->commands) command_run(session, line);
        }
        if (session->registered == 0) return 0;
        result = http_app_wait(session->app, 0, &request);
    }
    if (result <= 0) return result;
    request_handle(session, request);
    http_app_request_free(request);
    return 1;
}

// Connects again until every app is registered anew.
void connection_restore(http_app* app) {
    for (;;) {
        (void)usleep(RETRY_US);
        const int result = http_app_reconnect(app);
        if (result == 0) break;
        if (result > 0) {
            printf("registering again refused %d, %s\n", result, http_app_result_text(result));
        }
    }
    printf("registered again\n");
}

int run(const Options& options) {
    Session session{options};
    session.commands = options.commands;
    session.app = http_app_open(options.socket_path);
    while (session.app == nullptr && !options.once) {
        (void)usleep(RETRY_US);
        session.app = http_app_open(options.socket_path);
    }
    if (session.app == nullptr) {
        printf("no connection, %s\n", http_app_result_text(-errno));
        return 1;
    }
    int code = apps_register(&session) != 0 && options.once ? 1 : 0;
    if (session.registered == 0) code = 1;
    while (code == 0 && options.behaviour == Behaviour::NeverRead) (void)pause();

    while (code == 0 && session.registered > 0) {
        const int result = event_handle(&session);
        if (options.once && result > 0) break;
        if (result >= 0) continue;
        printf("connection: %s\n", http_app_result_text(result));
        if (result == -EBADMSG) continue;
        if (options.once) {
            code = 1;
        } else {
            connection_restore(session.app);
        }
    }
    http_app_close(session.app);
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int code = options_parse(argc, argv, &options);
    if (code >= 0) return code;
    // Whoever reads a pipe sees each line as it happens; commands are polled for, so
    // none may hide in a buffer.
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    (void)setvbuf(stdin, nullptr, _IONBF, 0);
    return run(options);
}
