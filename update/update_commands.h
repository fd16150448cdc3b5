// The operator's update and show commands: their trees and handlers.
// Threads: handlers on the main loop; long commands go on in threads of their
// own.
#pragma once

#include "frame/platform/client_new.h"

// "http ..." in exec mode and "http-update ..." in show mode.
extern const cli_node exec_http_tree;
extern const cli_node show_http_update_tree;

// "http update all|NAMES": the run goes on in a thread "http-update".
void http_update_cmd(cli_record* record);

// "http background-update all|NAMES": the run goes on in a thread
// "http-update-background", the command ends at once.
void http_update_background_cmd(cli_record* record);
