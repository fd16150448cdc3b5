// In place of edit_input.cpp on a machine without libedit.
#include "input.h"

InputResult edit_read_line(Connection* connection, const char* prompt, std::string* line) {
    return plain_read_line(connection, prompt, line);
}

void edit_close() {}
