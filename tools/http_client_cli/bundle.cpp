// The index comes last, since only then it is known; it is small and easily listed.
#include "bundle.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "time_limit.h"

namespace {

constexpr size_t MEMBER_NAME_MAX = 100;
constexpr size_t NAME_COLUMN = 24;

void index_add(Bundle* bundle, std::string_view name, std::string_view text) {
    std::string row(name);
    row.resize(std::max(row.size() + 1, NAME_COLUMN), ' ');
    bundle->index += row;
    bundle->index += text;
    bundle->index += '\n';
}

// Without leading dots, so that an unpacked bundle shows it.
std::string member_name(Bundle* bundle, std::string_view name) {
    while (name.starts_with('.')) name.remove_prefix(1);
    name = name.substr(0, MEMBER_NAME_MAX - 8);
    std::string unique(name);
    for (int number = 1;
         unique.empty() || std::ranges::find(bundle->names, unique) != bundle->names.end();
         ++number) {
        unique = std::to_string(number) + "-" + std::string(name);
    }
    bundle->names.push_back(unique);
    return unique;
}

}  // namespace

bool bundle_create(Bundle* bundle, const std::string& path) {
    if (!tar_gz_create(&bundle->tar, path)) return false;
    bundle->temporary = bundle->tar.temporary;
    time_limit_removes(bundle->temporary.c_str());
    return true;
}

void bundle_add(Bundle* bundle, std::string_view name, std::string_view content, long mtime_s,
                std::string_view note) {
    const std::string member = member_name(bundle, name);
    tar_gz_add(&bundle->tar, member, content, mtime_s);
    std::string text = std::to_string(content.size()) + " bytes";
    if (!note.empty()) (text += ", ") += note;
    index_add(bundle, member, text);
}

void bundle_none(Bundle* bundle, std::string_view name, std::string_view reason) {
    index_add(bundle, name, "none: " + std::string(reason));
}

void bundle_left_out(Bundle* bundle, std::string_view name, std::string_view reason) {
    const std::string text = "left out: " + std::string(reason);
    index_add(bundle, name, text);
    (void)fprintf(stderr, "http_client_cli: %s: %s\n", std::string(name).c_str(), text.c_str());
    bundle->complete = false;
}

bool bundle_finish(Bundle* bundle) {
    tar_gz_add(&bundle->tar, "index.txt", bundle->index, time(nullptr));
    const bool done = tar_gz_finish(&bundle->tar);
    time_limit_removes(nullptr);
    return done;
}
