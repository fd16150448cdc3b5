// One transfer at a time, in libcurl's own loop, which wakes for the library's socket,
// too: whatever the server does, the library can end it.

#include "host/http_util/program/session.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "base/clock.h"
#include "base/text.h"
#include "host/http_util/program/body_writer.h"
#include "host/http_util/program/place.h"
#include "host/http_util/program/response.h"
#include "host/http_util/program/session_trace.h"

namespace {

constexpr const char* USER_AGENT = "http_client";
constexpr long CURL_BUFFER_BYTES = 256 * 1024;  // its default of 16 KiB costs speed
constexpr int KEPT_BYTES = 4 << 20;             // of freed memory
constexpr long CONNECTION_MAX = 4;
constexpr int64_t IDLE_MS = 5000;   // without a target
constexpr int64_t REPORT_MS = 100;  // between two PROGRESS
constexpr int WAKE_MS = 1000;
// A body that nobody wants is read to its end when it is no longer than this: a new
// connection costs more.
constexpr uint64_t DISCARD_BYTES = 65536;
constexpr off_t BUNDLE_BYTES_MAX = 4 << 20;

enum class State {
    Idle,
    Placed,  // a target is set
    Asking,  // its request is under way
    Taking,  // its body goes into the file
    Discarding,
};

struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using List = std::unique_ptr<curl_slist, ListFree>;

struct Session {
    int socket = -1;
    CURLM* multi = nullptr;
    CURL* easy = nullptr;
    char* bundle = nullptr;  // certificates that are trusted
    size_t bundle_size = 0;

    State state = State::Idle;
    bool added = false;  // easy is in multi
    PlaceMessage place;
    List hosts;
    List headers;
    BodyWriter writer;
    uint64_t discarded = 0;
    uint64_t reported = 0;  // position
    int64_t reported_ms = 0;
    int64_t heard_ms = 0;  // of the library
    bool over = false;     // the library has gone, or can't be understood
};

// Of the program; its only thread's.
Session s_session;

template <typename Record>
void answer(const Record& record) {
    if (!message_send(s_session.socket, record)) s_session.over = true;
}

// ---- transfer ----

void transfer_remove() {
    if (s_session.added) (void)curl_multi_remove_handle(s_session.multi, s_session.easy);
    s_session.added = false;
    // A new handle each time: in one that is used again, libcurl 7.88 adds a folded line at
    // the front of a response to the last header line of the response before, which is
    // released by then. Connections stay with multi. Options that point into the lists go
    // with the old handle.
    curl_easy_cleanup(s_session.easy);
    s_session.easy = curl_easy_init();
    if (s_session.easy == nullptr) s_session.over = true;
    s_session.hosts.reset();
    s_session.headers.reset();
    s_session.writer.Close();
    s_session.state = State::Idle;
}

void transfer_end(EndMessage end, const char* text) {
    (void)text_copy(end.text, text);
    transfer_remove();
    answer(end);
}

// Tells the library how far the file has come, when it has waited long enough to know.
// A part of a piece is better in the file then than in memory.
bool progress_report() {
    if (monotonic_ms() - s_session.reported_ms < REPORT_MS) return true;
    if (!s_session.writer.Flush()) return false;
    if (s_session.writer.position() == s_session.reported) return true;
    ProgressMessage message;
    message.position = s_session.writer.position();
    // Where the library is too busy to listen the next one tells it all.
    (void)message_send(s_session.socket, message, -1, false);
    s_session.reported = message.position;
    s_session.reported_ms = monotonic_ms();
    return true;
}

// Shows the library the response; what it makes of it is the new state.
void response_show() {
    answer(response_head(s_session.easy));
    AnyMessage message;
    UniqueFd file;
    Received received = Received::Nothing;
    while (received == Received::Nothing) {
        received = message_receive(s_session.socket, &message, -1, &file);
    }
    s_session.heard_ms = monotonic_ms();
    const bool heard = received != Received::Gone;
    if (heard && message.type == MessageType::Body && file.valid()) {
        s_session.writer.Begin(std::move(file), message.body);
        s_session.reported = message.body.offset;
        s_session.reported_ms = s_session.heard_ms;
        s_session.state = State::Taking;
    } else if (heard && message.type == MessageType::Drop) {
        s_session.discarded = 0;
        s_session.state = State::Discarding;
    } else {
        s_session.over = true;
    }
}

size_t on_body(char* bytes, size_t, size_t size, void*) {
    if (s_session.state == State::Asking) response_show();
    if (s_session.over) return CURL_WRITEFUNC_ERROR;
    if (s_session.state == State::Taking) {
        const bool taken = s_session.writer.Take(bytes, size) && progress_report();
        return taken ? size : CURL_WRITEFUNC_ERROR;
    }
    s_session.discarded += size;
    return s_session.discarded <= DISCARD_BYTES ? size : CURL_WRITEFUNC_ERROR;
}

EndReason reason_of(CURLcode code) {
    switch (code) {
        case CURLE_OK:
            return EndReason::Whole;
        case CURLE_COULDNT_CONNECT:
        case CURLE_OPERATION_TIMEDOUT:  // only connecting has a limit here
        case CURLE_INTERFACE_FAILED:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
            return EndReason::NoConnection;
        default:
            return EndReason::Cut;
    }
}

// errno of a connection that failed; 0 when it was not the system that refused it.
int connect_error(CURLcode code) {
    if (code == CURLE_OPERATION_TIMEDOUT) return ETIMEDOUT;
    if (code == CURLE_INTERFACE_FAILED) return EADDRNOTAVAIL;
    long error = 0;
    if (curl_easy_getinfo(s_session.easy, CURLINFO_OS_ERRNO, &error) != CURLE_OK) return 0;
    return code == CURLE_COULDNT_CONNECT ? static_cast<int>(error) : 0;
}

void transfer_finish(CURLcode code) {
    // A response without a body has not been looked at yet.
    if (s_session.state == State::Asking && code == CURLE_OK) response_show();
    if (s_session.over) return;
    if (s_session.state == State::Discarding) {
        transfer_remove();
        return;
    }
    EndMessage end;
    end.reason = reason_of(code);
    if (end.reason == EndReason::NoConnection) end.error = connect_error(code);
    if (s_session.state == State::Taking) {
        (void)s_session.writer.Flush();  // what went wrong is in its end
        end = s_session.writer.end();
        if (end.reason == EndReason::Whole) end.reason = reason_of(code);
    }
    transfer_end(end, curl_easy_strerror(code));
}

// ---- a request ----

const char* address_text(uint32_t address, char (&text)[INET_ADDRSTRLEN]) {
    const in_addr number{address};
    return inet_ntop(AF_INET, &number, text, sizeof(text));
}

// The header lines that libcurl has no option for.
List headers_make(const GetMessage& get) {
    // A body in a coding is not the file.
    List list(curl_slist_append(nullptr, "Accept-Encoding: identity"));
    if (get.ranged == 0 || !list) return list;
    char line[VALIDATOR_SIZE + 16] = "";
    size_t length = 0;
    (void)text_appendf(line, sizeof(line), &length, "If-Range: %s", get.validator);
    if (curl_slist_append(list.get(), line) == nullptr) list.reset();
    return list;
}

List hosts_make(const GetMessage& get) {
    char address[INET_ADDRSTRLEN] = "";
    char entry[HOST_SIZE + 64] = "";
    size_t length = 0;
    (void)text_appendf(entry, sizeof(entry), &length, "%s:%u:%s", s_session.place.host,
                       s_session.place.port, address_text(get.address, address));
    return List(curl_slist_append(nullptr, entry));
}

// A failing option means a libcurl unlike the one that this was built for.
bool options_set(const GetMessage& get) {
    bool ok = true;
    const auto set = [&](CURLoption option, auto value) {
        ok = curl_easy_setopt(s_session.easy, option, value) == CURLE_OK && ok;
    };
    set(CURLOPT_URL, static_cast<const char*>(s_session.place.url));
    set(CURLOPT_RESOLVE, s_session.hosts.get());
    set(CURLOPT_HTTPHEADER, s_session.headers.get());
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    set(CURLOPT_IPRESOLVE, long{CURL_IPRESOLVE_V4});
    set(CURLOPT_PROXY, "");
    set(CURLOPT_USERAGENT, USER_AGENT);
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(get.connect_ms));
    set(CURLOPT_BUFFERSIZE, CURL_BUFFER_BYTES);
    set(CURLOPT_WRITEFUNCTION, on_body);
    curl_blob bundle{s_session.bundle, s_session.bundle_size, CURL_BLOB_NOCOPY};
    set(CURLOPT_CAINFO_BLOB, &bundle);
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    char source[INET_ADDRSTRLEN + 8] = "";
    char text[INET_ADDRSTRLEN] = "";
    size_t length = 0;
    if (get.source != 0) {
        (void)text_appendf(source, sizeof(source), &length, "host!%s",
                           address_text(get.source, text));
        set(CURLOPT_INTERFACE, static_cast<const char*>(source));
    }
    char range[64] = "";
    length = 0;
    if (get.ranged != 0) {
        (void)text_appendf(range, sizeof(range), &length, "%llu-",
                           static_cast<unsigned long long>(get.first));
        if (get.last != UINT64_MAX) {
            (void)text_appendf(range, sizeof(range), &length, "%llu",
                               static_cast<unsigned long long>(get.last));
        }
        set(CURLOPT_RANGE, static_cast<const char*>(range));
    }
    if (get.trace != 0) {
        set(CURLOPT_VERBOSE, 1L);
        set(CURLOPT_DEBUGFUNCTION, on_trace);
        set(CURLOPT_DEBUGDATA, static_cast<void*>(&s_session.socket));
    }
    return ok;
}

void on_get(const GetMessage& get) {
    s_session.hosts = hosts_make(get);
    s_session.headers = headers_make(get);
    s_session.state = State::Asking;
    if (s_session.hosts && s_session.headers && options_set(get) &&
        curl_multi_add_handle(s_session.multi, s_session.easy) == CURLM_OK) {
        s_session.added = true;
        return;
    }
    transfer_end(EndMessage(), "the request can't be made");
}

// False: the library has gone, or can't be understood.
bool on_message(const AnyMessage& message) {
    s_session.heard_ms = monotonic_ms();
    switch (message.type) {
        case MessageType::Target:
            transfer_remove();
            s_session.place = place_find(message.target);
            s_session.state = State::Placed;
            answer(s_session.place);
            return true;
        case MessageType::Get:
            if (s_session.state != State::Placed) return false;
            on_get(message.get);
            return true;
        case MessageType::Drop:
            transfer_remove();
            return true;
        default:
            return false;
    }
}

// ---- loop ----

// How long may pass without looking around.
int wait_ms_get() {
    if (s_session.state == State::Taking) {
        const bool more =
            s_session.writer.has_gathered() || s_session.writer.position() != s_session.reported;
        return more ? static_cast<int>(REPORT_MS) : WAKE_MS;
    }
    return WAKE_MS;
}

bool is_out_of_work() {
    const bool idle = s_session.state == State::Idle || s_session.state == State::Discarding;
    return idle && monotonic_ms() - s_session.heard_ms >= IDLE_MS;
}

void messages_take() {
    AnyMessage message;
    while (!s_session.over) {
        const Received received = message_receive(s_session.socket, &message, 0);
        if (received == Received::Nothing) return;
        s_session.over = received == Received::Gone || !on_message(message) || s_session.over;
    }
}

void transfer_drive() {
    int running = 0;
    (void)curl_multi_perform(s_session.multi, &running);
    int left = 0;
    const CURLMsg* done = curl_multi_info_read(s_session.multi, &left);
    if (done != nullptr) {
        transfer_finish(done->data.result);
    } else if (s_session.state == State::Taking && !progress_report()) {
        transfer_finish(CURLE_WRITE_ERROR);
    }
}

// Certificates of those whose word counts for https. A machine without them has no
// https.
void bundle_read() {
    const curl_version_info_data* facts = curl_version_info(CURLVERSION_NOW);
    if (facts->cainfo == nullptr) return;
    const UniqueFd file(open(facts->cainfo, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat about {};
    if (!file.valid() || fstat(file.get(), &about) != 0 || about.st_size > BUNDLE_BYTES_MAX) return;
    const auto size = static_cast<size_t>(about.st_size);
    std::unique_ptr<char, decltype(&free)> bytes(static_cast<char*>(malloc(size + 1)), &free);
    if (!bytes || read(file.get(), bytes.get(), size) != about.st_size) return;
    s_session.bundle = bytes.release();
    s_session.bundle_size = size;
}

}  // namespace

bool session_prepare() {
    // libcurl takes and gives back a buffer for each transfer; the system need not.
    (void)mallopt(M_MMAP_THRESHOLD, KEPT_BYTES);
    (void)mallopt(M_TRIM_THRESHOLD, KEPT_BYTES);
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return false;
    s_session.multi = curl_multi_init();
    s_session.easy = curl_easy_init();
    bundle_read();
    return s_session.multi != nullptr && s_session.easy != nullptr &&
           curl_multi_setopt(s_session.multi, CURLMOPT_MAXCONNECTS, CONNECTION_MAX) == CURLM_OK;
}

void session_run(int socket, const ReadyMessage& ready) {
    s_session.socket = socket;
    s_session.heard_ms = monotonic_ms();
    s_session.over = false;
    answer(ready);
    while (!s_session.over && !is_out_of_work()) {
        curl_waitfd library{socket, CURL_WAIT_POLLIN, 0};
        (void)curl_multi_poll(s_session.multi, &library, 1, wait_ms_get(), nullptr);
        if (library.revents != 0) messages_take();
        if (s_session.added && !s_session.over) transfer_drive();
    }
    transfer_remove();
}
