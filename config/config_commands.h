// The configuration commands and the running-configuration lines that would give
// them again:
//   http update mode manual             no http update mode
//   http update source_ip A.B.C.D       no http update source_ip
//   http update server HOST [port N]    no http update server [HOST [port N]]
//   http update time daily HH:MM        no http update time
//
// Threads: handlers on the main loop only.
#pragma once

#include "frame/platform/client_new.h"

// For configuration mode.
extern const cli_node cfg_http_update_tree;
