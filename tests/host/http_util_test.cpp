// Downloads from a hostile server on the loopback: each test scripts what it answers.

#include "frame/platform/http_util.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "host/http_util/download.h"
#include "tests/support/temp_dir.h"

namespace {

std::function<int()> s_on_sync;  // errno of the sync of a file, 0 for a real one

}  // namespace

// Stands in for the C library's, in the download library too.
extern "C" int fdatasync(int fd) {
    errno = s_on_sync ? s_on_sync() : 0;
    return errno != 0 ? -1 : static_cast<int>(syscall(SYS_fdatasync, fd));
}

namespace {

constexpr char ATTRIBUTE[] = "user.http_client.partial";
constexpr char TAG[] = "ETag: \"a\"\r\n";
constexpr char OLD_DATE[] = "Last-Modified: Mon, 01 Jan 2024 00:00:00 GMT\r\n";
constexpr char DATE[] = "Date: Tue, 02 Jan 2024 00:00:00 GMT\r\n";
constexpr char LENGTH[] = "Content-Length: 40000\r\n";
constexpr size_t CUT = 30000;
// First byte of what is asked for after that.
constexpr size_t AGAIN = CUT - 16384;

// One file on the server, and another one of that size.
std::string bytes(const char* name) {
    std::string text;
    while (text.size() < 40000) text += name + std::to_string(text.size());
    return text.substr(0, 40000);
}
const std::string OLD = bytes("old");
const std::string NEW = bytes("new");

UniqueFd loopback_socket(int type, int* port) {
    UniqueFd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    EXPECT_EQ(0, bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size));
    (void)listen(fd.get(), 16);  // of streams only
    EXPECT_EQ(0, getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size));
    *port = ntohs(address.sin_port);
    return fd;
}

std::string response(const std::string& status, const std::string& headers,
                     const std::string& body) {
    return "HTTP/1.1 " + status + "\r\n" + headers + "\r\n" + body;
}

std::string sized(const std::string& status, const std::string& headers, const std::string& body) {
    return response(status, headers + "Content-Length: " + std::to_string(body.size()) + "\r\n",
                    body);
}

std::string whole(const std::string& body, const std::string& headers = "") {
    return sized("200 OK", headers, body);
}

std::string part(const std::string& headers, const std::string& range, const std::string& body) {
    return sized("206 Partial", headers + "Content-Range: bytes " + range + "\r\n", body);
}

std::string rest(const std::string& headers, const std::string& file = OLD, size_t from = AGAIN) {
    return part(headers, std::to_string(from) + "-39999/40000", file.substr(from));
}

// Answers each request with the next text of the script (the last one again and again),
// then closes the connection; keeps it for the next request when the text ends in KEEP,
// and holds it open until the end when it ends in HOLD.
class Server {
  public:
    static constexpr char HOLD[] = "<hold>";
    static constexpr char KEEP[] = "<keep>";

    Server() : listener_(loopback_socket(SOCK_STREAM, &port_)), thread_([this] { Run(); }) {}
    ~Server() {
        (void)shutdown(listener_.get(), SHUT_RDWR);
        (void)shutdown(kept_, SHUT_RDWR);
        thread_.join();
    }
    void Script(std::vector<std::string> texts) {
        const std::lock_guard<std::mutex> guard(lock_);
        script_ = std::move(texts);
        requests_.clear();
        connections = 0;
    }
    std::vector<std::string> requests() {
        const std::lock_guard<std::mutex> guard(lock_);
        return requests_;
    }
    std::string Url(const std::string& path = "/f.bin", const char* host = "127.0.0.1") const {
        return std::string("http://") + host + ":" + std::to_string(port_) + path;
    }
    std::atomic<int> connections{0};

  private:
    void Run() {
        for (;;) {
            UniqueFd fd(accept(listener_.get(), nullptr, nullptr));
            if (!fd.valid()) return;
            ++connections;
            kept_ = fd.get();
            while (Serve(&fd)) {
            }
            kept_ = -1;
        }
    }
    bool Serve(UniqueFd* fd) {
        std::string request;
        char byte = 0;
        while (request.find("\r\n\r\n") == std::string::npos && recv(fd->get(), &byte, 1, 0) == 1) {
            request += byte;
        }
        if (request.empty()) return false;
        std::string text;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            requests_.push_back(request);
            if (!script_.empty()) text = script_.front();
            if (script_.size() > 1) script_.erase(script_.begin());
        }
        const bool hold = text.ends_with(HOLD);
        const bool keep = text.ends_with(KEEP);
        if (hold || keep) text.resize(text.size() - strlen(HOLD));
        (void)send(fd->get(), text.data(), text.size(), MSG_NOSIGNAL);
        if (hold) held_.push_back(std::move(*fd));
        return keep;
    }

    int port_ = 0;
    UniqueFd listener_;
    std::atomic<int> kept_{-1};
    std::mutex lock_;
    std::vector<std::string> script_;
    std::vector<std::string> requests_;
    std::vector<UniqueFd> held_;
    std::thread thread_;
};

// Every call of the callback, and the promises that hold for each of them.
struct Calls {
    uint64_t sum = 0;
    size_t idle = 0;  // with count 0
    bool finished = false;
    std::function<bool()> stop = [] { return false; };

    static int Take(DownloadCtx* context, int32_t count) {
        auto* calls = static_cast<Calls*>(context->user);
        EXPECT_FALSE(calls->finished) << "called after the file was said to be finished";
        EXPECT_GE(count, 0);
        calls->idle += count == 0 ? 1 : 0;
        calls->sum += static_cast<uint64_t>(count);
        calls->finished = context->received == context->total;
        return calls->stop() ? -1 : 0;
    }
};

class HttpUtil : public ::testing::Test {
  protected:
    int Get(unsigned flag = 0) { return GetUrl(server_.Url(), flag); }
    int GetUrl(const std::string& url, unsigned flag = 0, const http_util_tlv* source = nullptr) {
        calls_ = Calls{.stop = calls_.stop};
        context_ = DownloadCtx{};
        context_.progress = Calls::Take;
        context_.user = &calls_;
        if (source == nullptr)
            return http_download_file_progress(&context_, url.c_str(), path_.c_str(), flag);
        return http_download_file_progress_tlv(&context_, url.c_str(), path_.c_str(), flag, source);
    }
    std::string Content() const { return directory_.Read("f.bin"); }
    bool Marked() const { return getxattr(path_.c_str(), ATTRIBUTE, nullptr, 0) > 0; }
    bool Asked(size_t request, const std::string& header) {
        const std::vector<std::string> all = server_.requests();
        return request < all.size() && all[request].find("\r\n" + header) != std::string::npos;
    }
    // Leaves the first CUT bytes of OLD behind, as a download that was cut.
    void LeavePart(const std::string& headers) {
        (void)unlink(path_.c_str());
        server_.Script({response("200 OK", headers + LENGTH, OLD.substr(0, CUT))});
        ASSERT_EQ(DOWNLOAD_BROKEN, Get(1));
        ASSERT_EQ(OLD.substr(0, CUT), Content());
    }
    // The mark of the file, its line so replaced by text.
    void SetMark(size_t line, const std::string& text) {
        char mark[1024] = "";
        ASSERT_LT(0, getxattr(path_.c_str(), ATTRIBUTE, mark, sizeof(mark)));
        std::string all(mark);
        size_t begin = 0;
        while (line-- > 0) begin = all.find('\n', begin) + 1;
        all.replace(begin, all.find('\n', begin) - begin, text);
        ASSERT_EQ(0, setxattr(path_.c_str(), ATTRIBUTE, all.data(), all.size(), 0));
    }

    TempDir directory_;
    std::string path_ = directory_ / "f.bin";
    Server server_;
    DownloadCtx context_{};
    Calls calls_;
};

// Runs action with a mount that nobody else sees; false when that is not permitted.
bool WithMount(const std::string& what, const std::string& where, const char* type,
               unsigned long flags, const std::function<void()>& action) {
    bool mounted = false;
    // A mount namespace belongs to the thread that makes it, and goes with it.
    std::thread([&] {
        mounted =
            unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount(what.c_str(), where.c_str(), type, flags, flags == 0 ? "size=1m" : nullptr) == 0;
        if (mounted) action();
    }).join();
    return mounted;
}

// The download program of this process; 0 when there is none.
pid_t program() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream children(entry.path() / "children");
        for (pid_t child = 0; children >> child;) {
            std::string name;
            std::ifstream("/proc/" + std::to_string(child) + "/comm") >> name;
            if (name.starts_with("http_client_dow")) return child;
        }
    }
    return 0;
}

TEST_F(HttpUtil, OutcomeOfEachResponse) {
    // The last of its bytes are just enough for a report, which must not come early.
    const std::string big(256 * 1024, 'b');
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string three = "Content-Length: 3\r\n\r\nnew";
    const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n3\r\nnew\r\n";
    const int bad_status = DOWNLOAD_BAD_STATUS;
    const int bad_answer = DOWNLOAD_BAD_ANSWER;
    const struct {
        const char* name;
        std::string text;
        int result;
        std::string content;  // "old": what lay there is untouched
    } rows[] = {
        {"whole", ok + three, 0, "new"},
        {"large", whole(big), 0, big},
        {"empty", whole(""), 0, ""},
        {"more than announced", ok + three + "trailing", 0, "new"},
        {"chunked", chunked + "0\r\n\r\n", 0, "new"},
        {"cut", ok + "Content-Length: 9\r\n\r\nnew", DOWNLOAD_BROKEN, "new"},
        {"no length", ok + "\r\nnew", DOWNLOAD_NO_LENGTH, "old"},
        {"not found", "HTTP/1.1 404 Not Found\r\n" + three, bad_status, "old"},
        {"a part unasked", part("", "0-2/9", "new"), bad_status, "old"},
        {"to a file", "HTTP/1.1 302 Found\r\nLocation: file:///a\r\n" + three, DOWNLOAD_BAD_URL,
         "old"},
        {"too large", ok + "Content-Length: 999999999999999999\r\n\r\nn", HTTP_DOWNLOAD_NO_STORAGE,
         "old"},
        {"length below zero", ok + "Content-Length: -3\r\n\r\nnew", DOWNLOAD_BROKEN, "old"},
        {"two lengths", ok + "Content-Length: 9\r\n" + three, bad_answer, "old"},
        {"one length twice", ok + "Content-Length: 3\r\n" + three, 0, "new"},
        {"encoded", ok + "Content-Encoding: gzip\r\n" + three, bad_answer, "old"},
        {"encoded on the way", ok + "Transfer-Encoding: gzip, chunked\r\n" + three, DOWNLOAD_BROKEN,
         "old"},
        {"endless header", ok + "X: " + std::string(400000, 'x'), DOWNLOAD_BROKEN, "old"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        directory_.Write("f.bin", "old");
        server_.Script({row.text});
        EXPECT_EQ(row.result, Get());
        EXPECT_EQ(row.content, Content());
        EXPECT_EQ(row.result == 0, calls_.finished);
        EXPECT_TRUE(row.result != 0 || calls_.sum == row.content.size());
    }
}

TEST_F(HttpUtil, BadAddressesFailAtOnce) {
    int port = 0;
    loopback_socket(SOCK_STREAM, &port).reset();  // nobody listens there any more
    const std::pair<std::string, int> rows[] = {
        {"ftp://127.0.0.1/f", DOWNLOAD_BAD_URL},
        {"127.0.0.1/f", DOWNLOAD_BAD_URL},
        {"http://a\nb/", DOWNLOAD_BAD_URL},
        {"http://[::1]/f", DOWNLOAD_NO_ADDRESS},
        {"http://-bad-/f", DOWNLOAD_NO_ADDRESS},
        {"http://127.0.0.1:" + std::to_string(port) + "/", DOWNLOAD_NO_CONNECTION},
    };
    for (const auto& [url, result] : rows) EXPECT_EQ(result, GetUrl(url)) << url;
    EXPECT_NE(0, access(path_.c_str(), F_OK));
}

TEST_F(HttpUtil, RedirectsAreFollowedAFewTimes) {
    const auto to = [](const std::string& where) {
        return sized("302 Found", "Location: " + where + "\r\n", "page");
    };
    server_.Script({to("/other dir/f?x=1"), to(server_.Url("/end", "localhost")), whole("new")});
    EXPECT_EQ(0, Get());
    EXPECT_EQ("new", Content());
    const std::vector<std::string> requests = server_.requests();
    ASSERT_EQ(3U, requests.size());
    EXPECT_TRUE(requests[1].starts_with("GET /other%20dir/f?x=1 "));
    EXPECT_TRUE(requests[2].starts_with("GET /end ") && Asked(2, "Host: localhost:"));
    server_.Script({to("/again")});
    EXPECT_EQ(DOWNLOAD_BAD_STATUS, Get());
    EXPECT_LT(server_.requests().size(), 10U);
}

TEST_F(HttpUtil, PartIsContinuedOnlyWithProof) {
    const std::string dates = std::string(OLD_DATE) + DATE;
    const std::string same_second = std::string(OLD_DATE) + "Date" + (OLD_DATE + 13);
    const std::string all = whole(NEW);
    const std::string away = sized("302 Found", "Location: /away/f.bin\r\n", "");
    const std::string gone = sized("404 Not Found", "", "x");
    const std::string other_size = part(TAG, "13616-40000/40001", OLD.substr(AGAIN) + "x");
    const std::string range = TAG + std::string("Content-Range: bytes 13616-39999/40000\r\n");
    const std::string cut = response("206 Partial", range, OLD.substr(AGAIN, 20000));
    const std::string endless = response("206 Partial", range + "Transfer-Encoding: chunked\r\n",
                                         "6711\r\n" + OLD.substr(AGAIN) + "x\r\n") +
                                Server::HOLD;
    const std::string date = "Mon, 01 Jan 2024 00:00:00 GMT";
    const std::string tag = "\"a\"";
    const std::string begun = OLD.substr(0, CUT);
    const int bad_status = DOWNLOAD_BAD_STATUS;
    const struct {
        const char* name;
        std::string first;  // headers of the download that was cut
        std::vector<std::string> script;
        std::vector<std::string> asked;  // If-Range of each request, "" for no range
        int result;
        std::string content;
    } rows[] = {
        {"strong tag", TAG, {rest(TAG)}, {tag}, 0, OLD},
        {"old date", dates, {rest(dates)}, {date}, 0, OLD},
        {"tag, elsewhere", TAG, {away, rest(TAG)}, {tag, tag}, 0, OLD},
        {"date, elsewhere", dates, {away, all}, {date, ""}, 0, NEW},
        {"changed", TAG, {all}, {tag}, 0, NEW},
        {"other tag", TAG, {rest("ETag: \"b\"\r\n"), all}, {tag, ""}, 0, NEW},
        {"no date", dates, {rest(""), all}, {date, ""}, 0, NEW},
        {"other bytes", TAG, {rest(TAG, NEW), all}, {tag, ""}, 0, NEW},
        {"other size", TAG, {other_size, all}, {tag, ""}, 0, NEW},
        {"beyond its end", TAG, {sized("416 Range", "", ""), all}, {tag, ""}, 0, NEW},
        {"refused twice", TAG, {sized("400 Bad", "", "")}, {tag, ""}, bad_status, begun},
        {"gone", TAG, {gone}, {tag}, bad_status, begun},
        {"no body", TAG, {response("200 OK", LENGTH, "")}, {tag}, DOWNLOAD_BROKEN, begun},
        {"cut again", TAG, {cut}, {tag}, DOWNLOAD_BROKEN, OLD.substr(0, AGAIN + 20000)},
        {"part without end", TAG, {endless}, {tag}, DOWNLOAD_BROKEN, begun},
        {"weak tag", "ETag: W/\"a\"\r\n", {all}, {""}, 0, NEW},
        {"date of this very second", same_second, {all}, {""}, 0, NEW},
        {"tag of this very second", TAG + same_second, {all}, {""}, 0, NEW},
        {"nothing to prove it", "", {all}, {""}, 0, NEW},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        LeavePart(row.first);
        server_.Script(row.script);
        EXPECT_EQ(row.result, Get(1));
        EXPECT_TRUE(row.content == Content()) << Content().size() << " bytes";
        EXPECT_EQ(row.asked.size(), server_.requests().size());
        for (size_t i = 0; i < row.asked.size(); ++i) {
            EXPECT_EQ(!row.asked[i].empty(), Asked(i, "Range: bytes=13616-\r\n"));
            EXPECT_TRUE(row.asked[i].empty() || Asked(i, "If-Range: " + row.asked[i] + "\r\n"));
        }
        EXPECT_EQ(row.content != NEW, Marked());  // the new one has nothing to prove it
        EXPECT_EQ(row.result == 0, calls_.finished);
    }
}

TEST_F(HttpUtil, WhatLiesThereCountsOnlyIfItIsOurs) {
    const char* path = path_.c_str();
    const std::string other = directory_ / "other";
    const struct {
        const char* name;
        std::function<int()> prepare;
        unsigned flag;
    } rows[] = {
        {"from the beginning", [] { return 0; }, 0},
        {"another user's", [&] { return geteuid() == 0 ? chown(path, 65534, 65534) : -1; }, 1},
        {"others may write", [&] { return chmod(path, 0666); }, 1},
        {"two names", [&] { return link(path, other.c_str()); }, 1},
        {"a link", [&] { return rename(path, other.c_str()) + symlink(other.c_str(), path); }, 1},
        {"after a power cut", [&] { return SetMark(1, "boot"), SetMark(2, "0"), 0; }, 1},
        {"cut short", [&] { return SetMark(1, "boot"), truncate(path, 100); }, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        (void)unlink(other.c_str());
        LeavePart(TAG);
        if (row.prepare() != 0) continue;
        server_.Script({whole(NEW)});
        EXPECT_EQ(0, Get(row.flag));
        EXPECT_FALSE(Asked(0, "Range:"));
        EXPECT_TRUE(NEW == Content());
    }
    // A power cut leaves what was synced.
    LeavePart(TAG);
    SetMark(1, "another boot");
    SetMark(2, "20000");
    server_.Script({rest(TAG, OLD, 3616)});
    EXPECT_EQ(0, Get(1));
    EXPECT_TRUE(Asked(0, "Range: bytes=3616-\r\n"));
    EXPECT_TRUE(OLD == Content());
}

TEST_F(HttpUtil, WholeFileIsKeptWhileTheServerHasIt) {
    const std::string same = rest(TAG, OLD, 39999);
    const std::string other_byte = part(TAG, "39999-39999/40000", "?");
    const std::pair<std::vector<std::string>, bool> rows[] = {
        {{same}, true},
        {{whole(OLD, TAG)}, true},  // a server without ranges
        {{whole(NEW)}, false},
        {{other_byte, whole(NEW)}, false},
    };
    for (const auto& [script, kept] : rows) {
        server_.Script({whole(OLD, TAG)});
        (void)unlink(path_.c_str());
        ASSERT_EQ(0, Get(1));
        server_.Script(script);
        EXPECT_EQ(kept ? HTTP_DOWNLOAD_COMPLETE_ALREADY : 0, Get(1));
        EXPECT_TRUE(Asked(0, "Range: bytes=39999-39999\r\n") && Asked(0, "If-Range: \"a\"\r\n"));
        EXPECT_TRUE((kept ? OLD : NEW) == Content());
        EXPECT_EQ(kept, Marked());
        EXPECT_TRUE(calls_.finished);
    }
    server_.Script({whole(OLD, TAG)});
    ASSERT_EQ(0, Get(1));
    EXPECT_TRUE(Marked());
    http_download_file_release(path_.c_str());
    EXPECT_FALSE(Marked());
}

TEST_F(HttpUtil, FileMustBeOnDiskAndAtItsPath) {
    const std::string other = directory_ / "other";
    directory_.Write("other", "other");
    const std::function<int()> rows[] = {
        [] { return EIO; },
        [&] { return unlink(path_.c_str()); },
        [&] { return rename(other.c_str(), path_.c_str()); },
    };
    for (const auto& row : rows) {
        server_.Script({whole(OLD, TAG)});
        s_on_sync = row;
        EXPECT_EQ(DOWNLOAD_BAD_FILE, Get(1));
        EXPECT_FALSE(calls_.finished);
        s_on_sync = nullptr;
    }
    EXPECT_EQ("other", Content());
    // What could not be synced is not believed in this boot, either.
    s_on_sync = [] { return EIO; };
    LeavePart(TAG);
    s_on_sync = nullptr;
    server_.Script({whole(NEW)});
    EXPECT_EQ(0, Get(1));
    EXPECT_FALSE(Asked(0, "Range:"));
}

TEST_F(HttpUtil, LongDownloadIsSyncedOnItsWay) {
    const std::string body(20 << 20, 'b');
    server_.Script({response("200 OK", TAG + std::string("Content-Length: 99999999\r\n"), body) +
                    Server::HOLD});
    const auto synced = [&] {
        char mark[1024] = "";
        (void)getxattr(path_.c_str(), ATTRIBUTE, mark, sizeof(mark));
        return strtoul(strchr(strchr(mark, '\n') + 1, '\n'), nullptr, 10);
    };
    // A power cut is like a caller that goes away without a word.
    calls_.stop = [&] { return Marked() && synced() >= (16 << 20); };
    EXPECT_EQ(HTTP_DOWNLOAD_CANCELLED, Get(1));
    EXPECT_GE(body.size(), synced());
}

TEST_F(HttpUtil, OnlyAPlainFileIsReplaced) {
    server_.Script({whole("new")});
    directory_.Write("target", "precious");
    ASSERT_EQ(0, symlink((directory_ / "target").c_str(), path_.c_str()));
    EXPECT_EQ(0, Get(1));
    EXPECT_EQ("precious", directory_.Read("target"));
    EXPECT_EQ("new", Content());
    // Someone may still run the old file: it is replaced, not emptied.
    const UniqueFd old(open(path_.c_str(), O_RDONLY));
    server_.Script({whole("newer")});
    EXPECT_EQ(0, Get());
    char bytes[8] = "";
    EXPECT_EQ(3, read(old.get(), bytes, sizeof(bytes)));
    EXPECT_STREQ("new", bytes);
    ASSERT_EQ(0, unlink(path_.c_str()));
    ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
    EXPECT_EQ(DOWNLOAD_BAD_FILE, Get(1));
    path_ = directory_ / "missing/f.bin";
    EXPECT_EQ(DOWNLOAD_BAD_FILE, Get());
}

TEST_F(HttpUtil, CallbackRunsWhileNothingComes) {
    int port = 0;
    const UniqueFd silent_dns = loopback_socket(SOCK_DGRAM, &port);
    ASSERT_EQ(0, setenv("DNS_CLIENT_SERVERS", ("127.0.0.1:" + std::to_string(port)).c_str(), 1));
    const std::string chunk = response("200 OK", "Transfer-Encoding: chunked\r\n", "1\r\nn\r\n");
    const std::string some = response("200 OK", "Content-Length: 9\r\n", "new");
    const http_util_tlv source{1, 4, inet_addr("127.0.0.5")};
    calls_.stop = [&] { return calls_.idle >= 2; };
    for (const std::string& sent : {std::string("no connection yet"), std::string(), some, chunk}) {
        SCOPED_TRACE(sent);
        const bool look_up = sent.starts_with("no");
        server_.Script({sent + Server::HOLD});
        // A time limit of the library would end in another result.
        EXPECT_EQ(HTTP_DOWNLOAD_CANCELLED,
                  GetUrl(look_up ? "http://silent.test/" : server_.Url(), 0, &source));
        EXPECT_EQ(2U, calls_.idle);  // it is not asked again
        EXPECT_FALSE(calls_.finished);
    }
    (void)unsetenv("DNS_CLIENT_SERVERS");
    sockaddr_in asker{};
    socklen_t size = sizeof(asker);
    (void)recvfrom(silent_dns.get(), nullptr, 0, 0, reinterpret_cast<sockaddr*>(&asker), &size);
    EXPECT_STREQ("127.0.0.5", inet_ntoa(asker.sin_addr));
}

TEST_F(HttpUtil, StalledServerIsGivenUp) {
    server_.Script({response("200 OK", LENGTH, "old") + Server::HOLD});
    const std::string url = server_.Url();
    DownloadJob job;
    job.context = &context_;
    job.url = url.c_str();
    job.path = path_.c_str();
    job.pace_ms = 500;
    EXPECT_EQ(DOWNLOAD_BROKEN, download_run(job));
}

TEST_F(HttpUtil, ProgramServesOneDownloadAfterTheOther) {
    server_.Script({whole("one") + Server::KEEP, sized("404 Not Found", "", "two") + Server::KEEP,
                    whole("three") + Server::KEEP});
    EXPECT_EQ(0, Get());
    const pid_t first = program();
    EXPECT_EQ(DOWNLOAD_BAD_STATUS, Get());
    EXPECT_EQ(0, Get());
    EXPECT_EQ("three", Content());
    EXPECT_EQ(1, server_.connections);
    EXPECT_EQ(first, program());
    // It may end at any time.
    ASSERT_EQ(0, kill(first, SIGKILL));
    EXPECT_EQ(0, Get());
    EXPECT_NE(first, program());
}

TEST_F(HttpUtil, TlsServerNeedsATrustedCertificate) {
    directory_.Write("f", whole("new"));
    const std::string command =
        "cd " + directory_.path() + " && exec 2>log </dev/null && openssl req -x509 -days 1 " +
        "-newkey rsa:2048 -nodes -keyout key -out cert -subj /CN=x " +
        "-addext subjectAltName=IP:127.0.0.1 && exec timeout 60 openssl s_server -HTTP " +
        "-key key -cert cert -naccept 2 -accept 127.0.0.1:0";
    const std::unique_ptr<FILE, int (*)(FILE*)> tls(popen(command.c_str(), "r"), pclose);
    char line[256] = "";
    int port = 0;
    while (port == 0 && fgets(line, sizeof(line), tls.get()) != nullptr) {
        (void)sscanf(line, "ACCEPT 127.0.0.1:%d", &port);
    }
    if (port == 0) GTEST_SKIP() << "no openssl: " << directory_.Read("log");
    const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/f";
    EXPECT_EQ(DOWNLOAD_NO_CONNECTION, GetUrl(url));
    (void)kill(program(), SIGKILL);  // a new one reads the certificates
    if (!WithMount(directory_ / "cert", "/etc/ssl/certs/ca-certificates.crt", "", MS_BIND,
                   [&] { EXPECT_EQ(0, GetUrl(url)); })) {
        GTEST_SKIP() << "only root can";
    }
    EXPECT_EQ("new", Content());
}

TEST_F(HttpUtil, BodyWithoutEndLeavesAReserve) {
    ASSERT_EQ(0, mkdir((directory_ / "small").c_str(), 0700));
    path_ = directory_ / "small/f.bin";
    server_.Script({response("200 OK", "Transfer-Encoding: chunked\r\n",
                             "200000\r\n" + std::string(2 << 20, 'b') + "\r\n")});
    (void)WithMount("none", directory_ / "small", "tmpfs", 0, [&] {
        EXPECT_EQ(HTTP_DOWNLOAD_NO_STORAGE, Get(1));
        EXPECT_GE((1 << 20) - (1 << 16), directory_.Read("small/f.bin").size());
    });
}

TEST_F(HttpUtil, DebuggingTellsNoSecrets) {
    const std::string log = directory_ / "log";
    ASSERT_EQ(0, setenv("PRINTK_SYSLOG_FILE", log.c_str(), 1));
    server_.Script({whole("new", "Set-Cookie: hidden\r\nX-Text: shown\x1b[2J\r\n")});
    std::string url = server_.Url();
    url.insert(7, "user:hidden@");
    http_open_debug();
    EXPECT_EQ(0, GetUrl(url));
    http_close_debug();
    const std::string lines = directory_.Read("log");
    EXPECT_EQ(std::string::npos, lines.find("hidden")) << lines;
    EXPECT_EQ(std::string::npos, lines.find('\x1b'));
    EXPECT_NE(std::string::npos, lines.find(server_.Url() + " to " + path_));
    EXPECT_NE(std::string::npos, lines.find("X-Text: shown"));
    EXPECT_NE(std::string::npos, lines.find("ends with 0, 3 bytes"));
    (void)unsetenv("PRINTK_SYSLOG_FILE");
}

}  // namespace
