// File-name arrays, filled from the "filecnt" and "file" elements that version
// replies and the resume file have in common.
#include "update/filename_list.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "buffer/memory.h"
#include "frame/log.h"
#include "http/xml.h"

// Digits of a "filecnt" that are looked at, terminator included.
static constexpr size_t FILECNT_TEXT_SIZE = 16;

namespace {
struct FillState {
    FilenameArray array;
    int32_t filled;
    int32_t count;
};
}  // namespace

FilenameArray filename_malloc(int32_t count) {
    if (count <= 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, "filecnt [%d] is invalid in filename malloc",
                                count);
        return nullptr;
    }
    constexpr auto entry_size = static_cast<int32_t>(sizeof(char*));
    auto* array = count > INT32_MAX / entry_size
                      ? nullptr
                      : static_cast<FilenameArray>(mem_zalloc(count * entry_size));
    if (array == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "malloc for [%d] fail", count);
        return nullptr;
    }
    for (int32_t i = 0; i < count; ++i) {
        array[i] = static_cast<char*>(mem_zalloc(FILENAME_SIZE));
        if (array[i] == nullptr) {
            filename_free(array, i);
            http_client_debug_print(HTTPC_LOG_ERROR, "not enough memory for filename");
            return nullptr;
        }
    }
    return array;
}

void filename_free(FilenameArray array, int32_t count) {
    if (array == nullptr || count == 0) return;
    for (int32_t i = 0; i < count; ++i) mem_free(array[i]);
    mem_free(static_cast<void*>(array));
}

void filename_unlink(FilenameArray array, int32_t count) {
    if (array == nullptr) return;
    for (int32_t i = 0; i < count; ++i) {
        if (array[i] == nullptr) continue;
        (void)unlink(array[i]);  // it may not exist
        http_client_debug_print(HTTPC_LOG_INFO, "[%s]<-->unlink", array[i]);
    }
}

int filename_find(FilenameArray array, const char* path, int32_t count) {
    if (array == nullptr || path == nullptr) return -1;
    for (int32_t i = 0; i < count; ++i) {
        if (array[i] != nullptr && strcmp(array[i], path) == 0) return 0;
    }
    return -1;
}

// Visitor of filename_count: takes the name of one "file" element.
static int filename_replenish(xmlNodePtr file, int, void* argument) {
    if (argument == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "filename_replenish-->loop is empty");
        return -1;
    }
    auto* state = static_cast<FillState*>(argument);
    if (state->array == nullptr) {
        http_client_debug_print(HTTPC_LOG_ERROR, "filename_replenish-->loop arg is empty");
        return -1;
    }
    if (state->filled >= state->count) {
        http_client_debug_print(HTTPC_LOG_ERROR, "filename_replenish-->out %d over in %d",
                                state->filled, state->count);
        return -1;
    }
    char name[FILENAME_SIZE];
    xml_node_name_get(file, name, sizeof(name));
    if (name[0] == '\0') {
        http_client_debug_print(HTTPC_LOG_ERROR, "filename_replenish-->[file] have no attr");
        return -1;
    }
    http_client_debug_print(HTTPC_LOG_INFO, "filename_replenish-->[file] attr [%s]", name);
    memcpy(state->array[state->filled++], name, FILENAME_SIZE);
    return 0;
}

// Whether the text begins with a number, which may have anything behind it. A
// number beyond the range of the result counts as the nearest one.
static bool parse_count(const char* text, int32_t* number) {
    char* end = nullptr;
    const long value = strtol(text, &end, 10);
    if (end == text) return false;
    *number = static_cast<int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
    return true;
}

int filename_count(xmlNodePtr app, int32_t* count, FilenameArray* array) {
    *count = 0;
    *array = nullptr;
    char text[FILECNT_TEXT_SIZE] = "";
    xml_child_content_get(app, "filecnt", text, sizeof(text));
    int32_t expected = 0;
    if (!parse_count(text, &expected)) {
        http_client_debug_print(HTTPC_LOG_ERROR, "filename_count-->get cnt fail");
        return -1;
    }
    http_client_debug_print(HTTPC_LOG_INFO, "filename_count-->count %d", expected);
    if (expected > FILECNT_MAX || expected < 0) {
        http_client_debug_print(HTTPC_LOG_ERROR, " wrong filecnt %d", FILECNT_MAX);
        return -1;
    }
    if (expected == 0) return 0;

    OwnedFilenames names;
    names.array = filename_malloc(expected);
    if (names.array == nullptr) return -1;
    names.count = expected;
    FillState state{names.array, 0, expected};
    xml_child_foreach(app, "file", &state, filename_replenish);
    if (state.filled != expected) {
        http_client_debug_print(HTTPC_LOG_ERROR, "filename_count-->fielcout %d is not equal %d",
                                state.filled, expected);
        return -1;
    }
    *count = expected;
    *array = std::exchange(names.array, nullptr);
    return 0;
}
