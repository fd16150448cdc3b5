// Where command lines come from: a pipe or file, a plain terminal, or a terminal
// with line editing (libedit).
// Threads: one.
#pragma once

#include <string>

#include "connection.h"

enum class InputResult { kLine, kEnd, kInterrupted, kQuit, kLost };

// Reads the next line, without its line end. prompt is written first unless empty.
// A line beyond 64 KiB is cut there (and refused later as too long).
InputResult plain_read_line(Connection* connection, const char* prompt, std::string* line);

// Line editing with history; "?" and Tab are answered at once. kInterrupted:
// Ctrl+C cleared the line. kEnd: Ctrl+D.
InputResult edit_read_line(Connection* connection, const char* prompt, std::string* line);

// Gives the terminal back as it was, and keeps the history.
void edit_close();
