// Parses an update request in two passes over one copy of the payload: the first
// counts and checks, the second sets pointers to the texts where they lie. One
// allocation holds everything.

#include "host/http_update/app_request.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "frame/platform/http_update_packets.h"

namespace {

// What is still unread of the payload; a failed step leaves ok_ false for good.
class Reader {
  public:
    explicit Reader(std::span<const uint8_t> rest) : rest_(rest) {}

    [[nodiscard]] bool Ok() const { return ok_; }
    [[nodiscard]] size_t Left() const { return rest_.size(); }

    // A record as it lies there; all zero where it does not fit.
    template <typename Record>
    Record Take() {
        Record record{};
        const uint8_t* bytes = Next(sizeof(record));
        if (bytes != nullptr) memcpy(&record, bytes, sizeof(record));
        return record;
    }
    // A text of size bytes whose last, and no other, is zero.
    const char* Text(size_t size) {
        const uint8_t* bytes = Next(size);
        if (bytes == nullptr) return "";
        const void* end = memchr(bytes, 0, size);
        if (end != bytes + size - 1) ok_ = false;
        return reinterpret_cast<const char*>(bytes);
    }

  private:
    const uint8_t* Next(size_t size) {
        if (size == 0 || size > rest_.size()) ok_ = false;
        if (!ok_) return nullptr;
        const uint8_t* bytes = rest_.data();
        rest_ = rest_.subspan(size);
        return bytes;
    }

    std::span<const uint8_t> rest_;
    bool ok_ = true;
};

// Walks files and facts. With null arrays it only checks and counts the facts.
bool body_walk(std::span<const uint8_t> body, size_t file_count, const char** files,
               http_app_fact* facts, size_t* fact_count) {
    Reader reader(body);
    for (size_t i = 0; i < file_count && reader.Ok(); ++i) {
        const char* path = reader.Text(http_update_path_size(reader.Take<uint8_t>()));
        if (files != nullptr) files[i] = path;
    }
    size_t count = 0;
    while (reader.Ok() && reader.Left() > HTTP_UPDATE_REQ_END_SIZE) {
        const auto fact = reader.Take<http_msg_fact>();
        const char* name = reader.Text(fact.name_size);
        const char* text = reader.Text(fact.text_size);
        if (facts != nullptr) facts[count] = {name, text};
        ++count;
    }
    const auto end = reader.Take<uint32_t>();
    static_assert(sizeof(end) == HTTP_UPDATE_REQ_END_SIZE);
    *fact_count = count;
    return reader.Ok() && end == 0;
}

}  // namespace

ParsedRequest* app_request_parse(std::span<const uint8_t> payload) {
    Reader reader(payload);
    const auto head = reader.Take<http_msg_update_req>();
    const size_t file_count = head.file_count;
    size_t fact_count = 0;
    if (!reader.Ok() || head.rest_length != reader.Left() ||
        memchr(head.name, 0, sizeof(head.name)) == nullptr ||
        !body_walk(payload.subspan(sizeof(head)), file_count, nullptr, nullptr, &fact_count)) {
        errno = EBADMSG;
        return nullptr;
    }

    const size_t facts_at = sizeof(ParsedRequest);
    const size_t files_at = facts_at + fact_count * sizeof(http_app_fact);
    const size_t payload_at = files_at + file_count * sizeof(char*);
    void* block = malloc(payload_at + payload.size());
    if (block == nullptr) return nullptr;
    uint8_t* bytes = static_cast<uint8_t*>(block);
    memcpy(bytes + payload_at, payload.data(), payload.size());

    auto* parsed = new (block) ParsedRequest{};
    auto* facts = static_cast<http_app_fact*>(static_cast<void*>(bytes + facts_at));
    auto* files = static_cast<const char**>(static_cast<void*>(bytes + files_at));
    http_app_request* request = &parsed->request;
    request->app = reinterpret_cast<const char*>(bytes + payload_at);
    request->files = files;
    request->file_count = file_count;
    request->facts = facts;
    const std::span<const uint8_t> body{bytes + payload_at + sizeof(head), head.rest_length};
    (void)body_walk(body, file_count, files, facts, &request->fact_count);  // checked above
    return parsed;
}

void http_app_request_free(http_app_request* request) { free(request); }

const char* http_app_find_fact(const http_app_request* request, const char* name) {
    if (request == nullptr || name == nullptr) return nullptr;
    for (size_t i = 0; i < request->fact_count; ++i) {
        if (strcmp(request->facts[i].name, name) == 0) return request->facts[i].text;
    }
    return nullptr;
}
