// Start-up configuration: the file that the running configuration is saved to and
// replayed from.
//
// What lies at its path and was not read is never written over: as long as it may
// still be readable nothing is saved, and what is not ours, or could not be read for
// minutes, is moved aside to startup-config.unread, for people.
// Threads: main loop only.
#pragma once

#include <string>
#include <string_view>

#include "host/client_new/match.h"

namespace client_new {

// Runs each line of the file as a configuration command, unless that was done.
// Returns "" or why the file could not be read: then it is to be called again. A line
// that can't be taken costs a message in the system log and nothing else; so does a
// file that is not a plain file of a sensible size, that belongs to neither us nor
// root, or that others may write to.
std::string startup_config_replay(const Grammar& grammar);

// Nothing is read any more: the file is moved aside. If descriptors or memory were
// short, the file is as good as ever: this ends the process, and a restart mends it.
void startup_config_give_up();

// Saves the text, whole or not at all. Returns "" or why it failed: the old file is
// then still there (file_replace() names the exception).
std::string startup_config_save(std::string_view text);

// How the text differs from what is saved: its own lines with "+ " in front, those that
// only the file has with "- ". "" also when the file can't be read.
std::string startup_config_unsaved(std::string_view text);

}  // namespace client_new
