// The history of runs as one JSON document, as it stands in its file and as programs get
// it:
//
//   {"format": 1, "totals": {...}, "runs": [{...}, ...]}    the newest run first
//
// Numbers are numbers, times RFC 3339 in UTC, causes and outcomes stable words. What can
// be told from the rest ("outcome", "message") is written for readers and not read.
// Threads: any; works on its arguments only.
#pragma once

#include <rapidjson/writer.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "update/run_record.h"

// Of the document; a reader takes no other.
constexpr int64_t HISTORY_FORMAT = 1;

// A stream for RapidJSON into a buffer of its owner. A full one is drained, at the end of
// the document the rest. Where nobody drains it, what finds no room is dropped, but
// counted: without a buffer it tells how large a text is.
class JsonText {
  public:
    using Ch = char;
    using DrainFn = void (*)(std::string_view text);
    JsonText(char* buffer, size_t size, DrainFn drain = nullptr)
        : buffer_(buffer), size_(size), drain_(drain) {}

    void Put(char c) {
        if (length_ == size_) Flush();
        if (length_ < size_) buffer_[length_] = c;
        ++length_;
    }
    void Flush() {
        if (drain_ == nullptr) return;
        drain_(View());
        length_ = 0;
    }

    [[nodiscard]] size_t length() const { return length_; }
    [[nodiscard]] bool whole() const { return length_ <= size_; }
    // Of a whole one.
    [[nodiscard]] std::string_view View() const { return {buffer_, length_}; }

  private:
    char* buffer_;
    size_t size_;
    DrainFn drain_;
    size_t length_ = 0;
};

// RapidJSON's writer on such a stream, which needs no memory of the heap: of a document
// of at most 16 levels.
class JsonWriter {
  public:
    explicit JsonWriter(JsonText* text) : writer_(*text, &pool_, DEPTH) {}
    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    void BeginObject() { (void)writer_.StartObject(); }
    void EndObject() { (void)writer_.EndObject(); }
    void BeginArray() { (void)writer_.StartArray(); }
    void EndArray() { (void)writer_.EndArray(); }
    void Key(std::string_view key) { (void)writer_.Key(key.data(), Length(key)); }

    // Values; the text must be UTF-8.
    void Text(std::string_view text) { (void)writer_.String(text.data(), Length(text)); }
    void Number(int64_t number) { (void)writer_.Int64(number); }
    void Flag(bool flag) { (void)writer_.Bool(flag); }
    void Null() { (void)writer_.Null(); }
    // Seconds since 1970, as text; 0: null.
    void Time(int64_t seconds);

    // A key with its value.
    void Member(std::string_view key, int64_t number) {
        Key(key);
        Number(number);
    }
    void Member(std::string_view key, std::string_view text) {
        Key(key);
        Text(text);
    }
    void MemberFlag(std::string_view key, bool flag) {
        Key(key);
        Flag(flag);
    }
    void MemberTime(std::string_view key, int64_t seconds) {
        Key(key);
        Time(seconds);
    }

  private:
    using Pool = rapidjson::MemoryPoolAllocator<>;
    static constexpr size_t DEPTH = 16;
    static rapidjson::SizeType Length(std::string_view text) {
        return static_cast<rapidjson::SizeType>(text.size());
    }

    alignas(max_align_t) char memory_[1024] = {};
    Pool pool_{memory_, sizeof(memory_)};
    rapidjson::Writer<JsonText, rapidjson::UTF8<>, rapidjson::UTF8<>, Pool> writer_;
};

// What is known of all runs, those that have left the list, too.
struct HistoryTotals {
    uint32_t last_number;                  // of a run; 0: none yet
    uint64_t succeeded[UPDATE_RUN_KINDS];  // by kind
    uint64_t failed[UPDATE_RUN_KINDS];     // all others that have ended
    uint64_t fetched_bytes;
    uint64_t resumed_bytes;
    uint32_t last_success_number;  // 0: none yet
    UpdateRunKind last_success_kind;
    int64_t last_success_s;  // when it ended
};

// One value each.
void totals_write(const HistoryTotals& totals, JsonWriter* writer);
void cause_write(const Cause& cause, JsonWriter* writer);
// outcome: that of the record, unless it was interrupted.
void run_write(const RunRecord& run, RunOutcome outcome, JsonWriter* writer);

// Called for each run, the newest first; false: no more of them. The record is a copy,
// and the visitor's for as long as the call.
using RunVisitFn = bool (*)(RunRecord& run, void* argument);

// Reads a document, which is consumed; a zero byte follows it. The runs come through the
// one record, which the caller gives; totals and visit may be null. 0; EINVAL: it is none
// of ours, or damaged behind the runs that were visited; the totals are then those found
// before the damage.
[[nodiscard]] int history_document_read(char* document, HistoryTotals* totals, RunRecord* record,
                                        RunVisitFn visit, void* argument);
