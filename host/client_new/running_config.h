// Running configuration: what the trees' writers print now.
// Threads: main loop only.
#pragma once

#include <string>
#include <vector>

#include "host/client_new/match.h"

namespace client_new {

// The lines that would recreate the present settings, each with its line end: the
// writer of every running-configuration node of the trees is called once for each
// way to it.
std::string running_config_text(const std::vector<const cli_node*>& trees);

// The text on one line: line ends at its end go, others become blanks, and what is
// no text becomes a question mark.
std::string as_one_line(std::string text);

}  // namespace client_new
