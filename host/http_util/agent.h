// The download program, as the library sees it: started when it is needed, kept for the
// next download, gone by itself a few seconds after the last. It holds everything that
// talks to servers and nothing else: what it says is believed no further than a
// server's word.
// Threads: one download's; an idle program passes from one download to the next. A thread
// of its own waits for the end of each program, and ends with it.
#pragma once

#include <sys/types.h>

#include <atomic>

#include "base/unique_fd.h"
#include "host/http_util/protocol.h"

// Where the program has reached a server: as good for the next file as the connection
// that it keeps.
struct KnownServer {
    char authority[HOST_SIZE] = "";  // URL up to its path; "": none
    uint32_t source = 0;
    uint32_t address = 0;  // network byte order
    int64_t at_ms = 0;     // monotonic, when the name was looked up
};

class Agent {
  public:
    // debug: switch of the lines that the program has for the system log.
    explicit Agent(const std::atomic<bool>* debug) : debug_(debug) {}
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;
    ~Agent() { End(); }

    // Sends the first message of a download: to the program that the last one left, or to
    // a new one. False when there is none to be had.
    [[nodiscard]] bool Begin(const TargetMessage& target);
    template <typename Record>
    [[nodiscard]] bool Send(const Record& record, int file = -1) {
        return message_send(socket_.get(), record, file);
    }
    // The next message that is the download's business.
    [[nodiscard]] Received Receive(AnyMessage* message, int wait_ms);

    // The program may have ended just when the first message was sent to it, and a new
    // one is worth a try.
    [[nodiscard]] bool was_idle() const { return was_idle_; }
    // It has come to life.
    [[nodiscard]] bool ready() const { return ready_; }

    // The address of the URL's server, if the program has reached it from this source
    // within the last minute; 0 else.
    [[nodiscard]] uint32_t AddressOf(const char* url, uint32_t source) const;
    void Remember(const char* url, uint32_t source, uint32_t address);

    // Leaves the program, which has nothing to do any more, to the next download.
    void Leave();
    // Ends it, whatever it is doing, and waits until it writes to no file any more.
    void End();

  private:
    [[nodiscard]] bool Start();
    [[nodiscard]] bool Accept(const ReadyMessage& ready) const;

    const std::atomic<bool>* debug_;
    UniqueFd socket_;
    pid_t program_ = 0;
    KnownServer known_;
    bool was_idle_ = false;
    bool ready_ = false;
};
