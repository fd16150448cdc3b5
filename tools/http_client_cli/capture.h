// What another program prints, or a part of this one that may end it or hang: it runs in a
// process of its own, within limits.
// Threads: one.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>

struct Captured {
    std::string output;  // standard output and error; at most 1 MiB, a longer one is cut
    int status;          // exit status, of a shell's kind; 127: there is no such program
    bool hung;           // it was killed after 20 seconds
};

Captured capture(const std::function<int()>& body);
Captured capture_program(std::initializer_list<const char*> words);
