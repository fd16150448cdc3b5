// What helps the person who typed an update command, beside the answer of the command.
// Threads: that of the command.
#pragma once

// names: an update command's argument. Those that nobody has are skipped by the run,
// without a word: says which they are, and who is registered.
void hint_unregistered(const char* names);
