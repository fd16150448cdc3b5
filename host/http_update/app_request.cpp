// Parses an update request in two passes over one copy of the payload: the first
// counts and checks, the second sets pointers to the texts where they lie. One
// allocation holds everything.

#include "host/http_update/app_request.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <new>

namespace {

constexpr size_t NAME_SIZE = 32;
constexpr size_t HEAD_SIZE = 36;
constexpr size_t TAIL_SIZE = 4;

// What is still unread of the payload; a failed step leaves ok_ false for good.
class Reader {
  public:
    explicit Reader(std::span<const uint8_t> rest) : rest_(rest) {}

    [[nodiscard]] bool Ok() const { return ok_; }
    [[nodiscard]] size_t Left() const { return rest_.size(); }

    uint16_t Number() {
        uint16_t number = 0;
        const uint8_t* bytes = Take(sizeof number);
        if (bytes != nullptr) memcpy(&number, bytes, sizeof number);
        return number;
    }
    uint8_t Byte() {
        const uint8_t* byte = Take(1);
        return byte == nullptr ? uint8_t{0} : *byte;
    }
    // A text of size bytes whose last, and no other, is zero.
    const char* Text(size_t size) {
        const uint8_t* bytes = Take(size);
        if (bytes == nullptr) return "";
        const void* end = memchr(bytes, 0, size);
        if (end != bytes + size - 1) ok_ = false;
        return reinterpret_cast<const char*>(bytes);
    }

  private:
    const uint8_t* Take(size_t size) {
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
        const size_t stated = reader.Byte();
        const char* path = reader.Text(stated == 0 ? 256 : stated);
        if (files != nullptr) files[i] = path;
    }
    size_t count = 0;
    while (reader.Ok() && reader.Left() > TAIL_SIZE) {
        const size_t name_size = reader.Number();
        const size_t text_size = reader.Number();
        const char* name = reader.Text(name_size);
        const char* text = reader.Text(text_size);
        if (facts != nullptr) facts[count] = {name, text};
        ++count;
    }
    const bool ends_in_zeroes = reader.Number() == 0 && reader.Number() == 0;
    *fact_count = count;
    return reader.Ok() && ends_in_zeroes;
}

}  // namespace

ParsedRequest* app_request_parse(std::span<const uint8_t> payload) {
    uint16_t file_count = 0;
    uint16_t rest_length = 0;
    size_t fact_count = 0;
    bool whole = payload.size() >= HEAD_SIZE + TAIL_SIZE;
    if (whole) {
        memcpy(&file_count, payload.data() + NAME_SIZE, sizeof file_count);
        memcpy(&rest_length, payload.data() + NAME_SIZE + 2, sizeof rest_length);
        whole = rest_length == payload.size() - HEAD_SIZE &&
                memchr(payload.data(), 0, NAME_SIZE) != nullptr &&
                body_walk(payload.subspan(HEAD_SIZE), file_count, nullptr, nullptr, &fact_count);
    }
    if (!whole) {
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
    const std::span<const uint8_t> body{bytes + payload_at + HEAD_SIZE, rest_length};
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
