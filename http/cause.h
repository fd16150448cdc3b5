// Why something failed: in which phase, at which server, for what reason. Reports, the
// system log and the history of runs all tell it in the words of this module.
// Threads: any; works on its arguments only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "config/server_list.h"

enum class CausePhase : uint8_t { None, LookUp, Connect, Query, Reply, Download, HandOver };

enum class CauseReason : uint8_t {
    None,         // nothing has failed, or nobody knows why
    System,       // number: errno
    NameService,  // number: result of the look-up; negative: no such name
    HttpStatus,   // number: the status
    NoAnswer,     // number: seconds that were waited, 0: unknown
    TooSlow,      // below the pace that is asked of servers
    Closed,       // the other side ended the connection too early
    File,         // of the device; number: errno
    NoStorage,
    NoMemory,
    Cancelled,  // by the operator
    Unusable,   // text says what of an answer can't be used
    Other,      // number: result of the download library
};

constexpr size_t CAUSE_TEXT_SIZE = 64;

struct Cause {
    CausePhase phase = CausePhase::None;
    CauseReason reason = CauseReason::None;
    uint16_t port = 0;
    int32_t number = 0;
    bool redirected = false;           // it failed where the server at host had pointed to
    char host[SERVER_HOST_SIZE] = "";  // name or dotted address; "": no server's fault
    char file[CAUSE_TEXT_SIZE] = "";   // that was being downloaded, without its path
    char text[CAUSE_TEXT_SIZE] = "";   // of an unusable answer
};
static_assert(std::is_trivially_copyable_v<Cause>);

// Nothing has failed yet; what fails from now on does at that server.
void cause_begin(Cause* cause, std::string_view host, uint16_t port);

// These keep the place. Null is ignored: nobody asks.
void cause_set(Cause* cause, CausePhase phase, CauseReason reason, int32_t number = 0);
void cause_set_unusable(Cause* cause, CausePhase phase, std::string_view text);
// 0 stands for a connection that was closed, ETIME for one below the pace; silence_s is
// what a time-out means.
void cause_set_errno(Cause* cause, CausePhase phase, int error, int silence_s);

// Stable words for files and programs; "none" for None.
[[nodiscard]] const char* cause_phase_name(CausePhase phase);
[[nodiscard]] const char* cause_reason_name(CauseReason reason);
// The other way; None for an unknown word.
[[nodiscard]] CausePhase cause_phase_of(std::string_view name);
[[nodiscard]] CauseReason cause_reason_of(std::string_view name);

// One line for a person, with the place: "10.1.1.1:80: connection refused". Empty for
// None. Texts of servers are shown as ShownText shows them.
class CauseWords {
  public:
    explicit CauseWords(const Cause& cause);
    [[nodiscard]] const char* get() const { return text_; }

  private:
    [[gnu::format(printf, 2, 3)]] void Append(const char* format, ...);
    void AppendPlace(const Cause& cause);
    void AppendReason(const Cause& cause);

    char text_[320] = "";
    size_t length_ = 0;
};
