// An archive with an index of its own: what is in it, what this device does not have, and
// what was left out although it should be there.
// Threads: one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tar_gz.h"

struct Bundle {
    TarGz tar;
    std::string temporary;  // path; for the time limit, which may strike at any point
    std::string index;
    std::vector<std::string> names;
    bool complete = true;  // nothing was left out
};

// False: errno says why.
[[nodiscard]] bool bundle_create(Bundle* bundle, const std::string& path);

// name may be cut, and gets a number when another member has it. note: "" or what there is
// to say about it.
void bundle_add(Bundle* bundle, std::string_view name, std::string_view content, long mtime_s,
                std::string_view note);

// There is none here, which is as it should be.
void bundle_none(Bundle* bundle, std::string_view name, std::string_view reason);

// It could not be had: said on standard error, too.
void bundle_left_out(Bundle* bundle, std::string_view name, std::string_view reason);

// Adds the index as index.txt and puts the archive in place. False: errno says why.
[[nodiscard]] bool bundle_finish(Bundle* bundle);
