// What can be typed in each mode of a session: the daemon's trees, and the
// commands of the service itself around them.
// Threads: main loop only.
#pragma once

#include <string>

#include "host/client_new/cli_protocol.h"
#include "host/client_new/match.h"

namespace client_new {

using DebugSwitch = void (*)(int action);

// Trees and switches count once, however often they are added.
// False: there is no such mode, or no tree.
bool modes_add_tree(int mode, const cli_node* root);

void modes_add_debug_switch(DebugSwitch debug_switch);

// Puts the grammars together, once; trees added later are not seen.
void modes_build();

const Grammar& modes_grammar(Mode mode);

// Runs the lines of the start-up configuration, unless that was done, with the trees
// that were there at the first call. Returns "" or why it could not be read.
std::string modes_replay();

// Lines of configuration that "write" would add ("+ ") or take away ("- "); "": none, or
// what is saved can't be read.
std::string modes_unsaved();

}  // namespace client_new
