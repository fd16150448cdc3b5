// What a URL names, by libcurl's own reading of it, so that nobody else reads it
// differently.
// Threads: the program's only one.
#pragma once

#include "host/http_util/protocol.h"

// place.valid is 0 for what is no URL of http or https, or too long for the record.
[[nodiscard]] PlaceMessage place_find(const TargetMessage& target);
