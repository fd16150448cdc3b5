// Running configuration (what the trees' writers print now) and start-up
// configuration (the file it is saved to and replayed from).
// Threads: main loop only.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/client_new/match.h"

namespace client_new {

// The lines that would recreate the present settings, each with its line end: the
// writer of every running-configuration node of the trees is called once for each
// way to it.
std::string running_config_text(const std::vector<const cli_node*>& trees);

// Path of the start-up configuration.
std::string startup_config_path();

// Saves the text under the path, whole or not at all. Returns "" or why it
// failed: the old file is then still there (file_replace() names the exception).
std::string startup_config_save(const std::string& path, std::string_view text);

// Runs each line of the file as a configuration command. A line that can't be
// taken costs a message in the system log and nothing else; so does a file that
// isn't a plain file of a sensible size that belongs to us or to root.
void startup_config_replay(const std::string& path, const Grammar& grammar);

}  // namespace client_new
