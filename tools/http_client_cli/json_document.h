// The daemon's JSON document on standard output, whole or not at all: a reader always gets
// JSON, in the worst case with the reason why there is no document.
// Threads: one.
#pragma once

#include "tech_support.h"

// Returns the program's exit status: 0; else, after {"error": {"message": ..., "status":
// N}}, that N, which is the command's exit status, or 2.
int json_document_print(CommandRunner run);
