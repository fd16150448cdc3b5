// The one key that means something while a command goes on; others are thrown away.
#include "http/cancel.h"

#include "frame/platform/client_new.h"

bool ctrl_c_typed() { return cli_getc_no_block() == CLI_KEY_CTRL_C; }
