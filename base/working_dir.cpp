// The environment is asked each time by those who have no moment of start of their
// own (the platform libraries, the SDK in a foreign process); only the daemon keeps
// what it has read.
#include "base/working_dir.h"

#include <cstdlib>

#include "base/text.h"

DirPrefix process_tmp_dir = TMP_DIR;
DirPrefix process_data_dir = DATA_DIR;

bool dir_prefix_read(DirPrefix* prefix) {
    const char* value = getenv(prefix->variable);
    if (value == nullptr) return false;
    (void)text_copy(prefix->text, value);  // a longer prefix is cut
    return true;
}

DirPrefix dir_prefix_now(DirPrefix prefix) {
    (void)dir_prefix_read(&prefix);  // else the default
    return prefix;
}

void dir_prefix_join(const DirPrefix& prefix, const char* relative, char (&path)[PATH_SIZE]) {
    memset(path, 0, sizeof(path));
    size_t length = 0;
    (void)text_appendf(path, sizeof(path), &length, "%s%s", prefix.text, relative);
}

void working_path(const DirPrefix& prefix, const char* name, char (&path)[PATH_SIZE]) {
    dir_prefix_join(prefix, WORKING_DIR, path);
    size_t length = strlen(path);
    (void)text_appendf(path, sizeof(path), &length, "/%s", name);
}
