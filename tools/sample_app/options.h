// Command line of the sample app.
// Threads: main only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class Behaviour { Install, Fail, Busy, Slow, Die, Deregister, NeverRead };

struct SampleApp {
    std::string name;
    std::string version;
    std::string save_path;
    uint32_t flags = 0;
};

struct Options {
    std::vector<SampleApp> apps;
    Behaviour behaviour = Behaviour::Install;
    int32_t fail_code = 0;  // Fail
    unsigned slow_s = 0;    // Slow
    const char* socket_path = nullptr;
    bool once = false;
    bool commands = false;
};

// Reads the arguments. -1: go on; otherwise the process ends with this code (a
// reason or the help has been printed).
[[nodiscard]] int options_parse(int argc, char** argv, Options* options);
