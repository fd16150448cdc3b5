// All that the reports tell, for programs: one JSON document, described by
// docs/status.schema.json. Made of the same facts as the reports for people.
// Threads: as each call says.
#pragma once

#include "frame/platform/client_new.h"

// "show http-update json": a thread of its own prints, because the disk may be slow.
// Nothing is kept of the document, but for a run and a few hundred bytes at a time.
void show_json_cmd(cli_record* record);
