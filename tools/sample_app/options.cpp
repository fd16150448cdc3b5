// Options apply to the --name before them, as the apps of one connection may differ in
// everything; so they are taken in order and not gathered by kind.
#include "tools/sample_app/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "host/http_update/http_update_app.h"

namespace {

constexpr char HELP[] =
    R"(usage: sample_app --name NAME [app options] [--name NAME ...] [options]

Registers one or several apps with the update daemon over one connection, prints
what it is told, and installs delivered files: it checks that each exists and
prints its size and SHA-256.

App options, for the --name before them:
  --version V        version that runs now
  --save-path DIR/   where files are saved; the daemon adds no slash
  --one-file         only the first listed file
  --manual           not in the daily automatic update
  --incremental      take what came, even if not all came

Options:
  --answer HOW       what becomes of a request (default ok):
                       ok           install, answer 0 with the version delivered
                       fail=CODE    install, answer CODE
                       busy         answer 1 (still updating) and no more
                       slow=N       answer 1, N seconds later 0
                       die          end at once without an answer
                       deregister   deregister the app instead of an answer
                       never-read   register, then read nothing more
  --commands         obey lines on standard input: version NAME V, manual NAME,
                     auto NAME, save-path NAME DIR/, deregister NAME
  --once             end after the first answer, with 1 if the daemon refuses an
                     app or goes away; without it, connect again for ever
  --socket PATH      default $TMPDIR (or /tmp) /oam/http_client/.http_update
)";

enum Option {
    NAME = 256,
    VERSION,
    SAVE_PATH,
    ONE_FILE,
    MANUAL,
    INCREMENTAL,
    ANSWER,
    COMMANDS,
    ONCE,
    SOCKET,
    SHOW_HELP
};

constexpr option OPTIONS[] = {
    {"name", required_argument, nullptr, NAME},
    {"version", required_argument, nullptr, VERSION},
    {"save-path", required_argument, nullptr, SAVE_PATH},
    {"one-file", no_argument, nullptr, ONE_FILE},
    {"manual", no_argument, nullptr, MANUAL},
    {"incremental", no_argument, nullptr, INCREMENTAL},
    {"answer", required_argument, nullptr, ANSWER},
    {"commands", no_argument, nullptr, COMMANDS},
    {"once", no_argument, nullptr, ONCE},
    {"socket", required_argument, nullptr, SOCKET},
    {"help", no_argument, nullptr, SHOW_HELP},
    {nullptr, 0, nullptr, 0},
};

// The number after '=', 1 to 1000000; 0 when there is none.
int32_t number_parse(std::string_view text) {
    char* end = nullptr;
    const std::string digits(text);
    const long number = strtol(digits.c_str(), &end, 10);
    return *end == '\0' && number > 0 && number <= 1000000 ? static_cast<int32_t>(number) : 0;
}

bool answer_parse(std::string_view how, Options* options) {
    static constexpr struct {
        std::string_view word;
        Behaviour behaviour;
    } WORDS[] = {{"ok", Behaviour::Install},
                 {"busy", Behaviour::Busy},
                 {"die", Behaviour::Die},
                 {"deregister", Behaviour::Deregister},
                 {"never-read", Behaviour::NeverRead}};
    for (const auto& row : WORDS) {
        if (row.word != how) continue;
        options->behaviour = row.behaviour;
        return true;
    }
    if (how.starts_with("fail=")) {
        options->behaviour = Behaviour::Fail;
        options->fail_code = number_parse(how.substr(5));
        return options->fail_code > HTTP_APP_UPDATING;
    }
    if (how.starts_with("slow=")) {
        options->behaviour = Behaviour::Slow;
        options->slow_s = static_cast<unsigned>(number_parse(how.substr(5)));
        return options->slow_s > 0;
    }
    return false;
}

// Options that describe the app named last; false for any other option.
bool app_option(int option, SampleApp* app) {
    switch (option) {
        case VERSION:
            app->version = optarg;
            return true;
        case SAVE_PATH:
            app->save_path = optarg;
            return true;
        case ONE_FILE:
            app->flags |= HTTP_APP_ONE_FILE;
            return true;
        case MANUAL:
            app->flags |= HTTP_APP_MANUAL;
            return true;
        case INCREMENTAL:
            app->flags |= HTTP_APP_INCREMENTAL;
            return true;
        default:
            return false;
    }
}

int usage_error(const char* reason) {
    fprintf(stderr, "sample_app: %s (--help says more)\n", reason);
    return 2;
}

}  // namespace

int options_parse(int argc, char** argv, Options* options) {
    for (;;) {
        const int option = getopt_long(argc, argv, "", OPTIONS, nullptr);
        if (option == -1) break;
        if (!options->apps.empty() && app_option(option, &options->apps.back())) continue;
        switch (option) {
            case NAME:
                options->apps.push_back({optarg, "", "", 0});
                break;
            case ANSWER:
                if (!answer_parse(optarg, options)) return usage_error("no such answer");
                break;
            case COMMANDS:
                options->commands = true;
                break;
            case ONCE:
                options->once = true;
                break;
            case SOCKET:
                options->socket_path = optarg;
                break;
            case SHOW_HELP:
                fputs(HELP, stdout);
                return 0;
            case '?':
                return usage_error("bad arguments");
            default:
                return usage_error("an app's options follow its --name");
        }
    }
    if (optind < argc) return usage_error("only options are taken");
    if (options->apps.empty()) return usage_error("--name is missing");
    return -1;
}
