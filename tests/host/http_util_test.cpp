// Downloads from a hostile server on the loopback: each test scripts what it answers.

#include "frame/platform/http_util.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "host/http_util/engine.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr char ATTRIBUTE[] = "user.http_client.partial";
constexpr char OLD_DATE[] = "Last-Modified: Mon, 01 Jan 2024 00:00:00 GMT\r\n";
constexpr char DATE[] = "Date: Tue, 02 Jan 2024 00:00:00 GMT\r\n";

UniqueFd loopback_socket(int type, int* port) {
    UniqueFd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
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

// Answers each connection with the next text of the script (the last one again and
// again), then closes it, or holds it open until the end when the text ends in HOLD.
class Server {
  public:
    static constexpr char HOLD[] = "<hold>";

    Server() : listener_(loopback_socket(SOCK_STREAM, &port_)), thread_([this] { Run(); }) {}
    ~Server() {
        (void)shutdown(listener_.get(), SHUT_RDWR);
        thread_.join();
    }
    void Script(std::vector<std::string> texts) {
        const std::lock_guard<std::mutex> guard(lock_);
        script_ = std::move(texts);
        requests_.clear();
    }
    std::vector<std::string> requests() {
        const std::lock_guard<std::mutex> guard(lock_);
        return requests_;
    }
    std::string Url(const std::string& path = "/f.bin") const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

  private:
    void Run() {
        for (;;) {
            UniqueFd fd(accept(listener_.get(), nullptr, nullptr));
            if (!fd.valid()) return;
            std::string request;
            char byte = 0;
            while (request.find("\r\n\r\n") == std::string::npos &&
                   recv(fd.get(), &byte, 1, 0) == 1) {
                request += byte;
            }
            std::string text;
            {
                const std::lock_guard<std::mutex> guard(lock_);
                requests_.push_back(request);
                if (!script_.empty()) text = script_.front();
                if (script_.size() > 1) script_.erase(script_.begin());
            }
            const bool hold = text.ends_with(HOLD);
            if (hold) text.resize(text.size() - strlen(HOLD));
            (void)send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL);
            if (hold) held_.push_back(std::move(fd));
        }
    }

    int port_ = 0;
    UniqueFd listener_;
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
    int GetUrl(const std::string& url, unsigned flag = 0) {
        calls_ = Calls{.stop = calls_.stop};
        context_ = DownloadCtx{};
        context_.progress = Calls::Take;
        context_.user = &calls_;
        return http_download_file_progress(&context_, url.c_str(), path_.c_str(), flag);
    }
    std::string Content() const { return directory_.Read("f.bin"); }
    bool Marked() const { return getxattr(path_.c_str(), ATTRIBUTE, nullptr, 0) > 0; }
    bool Asked(size_t request, const std::string& header) {
        const std::vector<std::string> all = server_.requests();
        return request < all.size() && all[request].find("\r\n" + header) != std::string::npos;
    }
    // Leaves "01234" of "0123456789" behind, as a download that was cut.
    void LeavePart(const std::string& headers) {
        server_.Script({response("200 OK", headers + "Content-Length: 10\r\n", "01234")});
        ASSERT_EQ(DOWNLOAD_BROKEN, Get(1));
        ASSERT_EQ("01234", Content());
    }

    TempDir directory_;
    std::string path_ = directory_ / "f.bin";
    Server server_;
    DownloadCtx context_{};
    Calls calls_;
};

TEST_F(HttpUtil, LibcurlComesWithTheFirstDownload) {
    const auto loaded = [] { return dlopen("libcurl.so.4", RTLD_NOW | RTLD_NOLOAD) != nullptr; };
    if (loaded()) GTEST_SKIP() << "not the first test, or one static program";
    server_.Script({whole("x")});
    EXPECT_EQ(0, Get());
    EXPECT_TRUE(loaded());
}

TEST_F(HttpUtil, OutcomeOfEachResponse) {
    // The last of its bytes are just enough for a report, which must not come early.
    const std::string big(256 * 1024, 'b');
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string three = "Content-Length: 3\r\n\r\nnew";
    const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n3\r\nnew\r\n";
    const int bad_status = DOWNLOAD_BAD_STATUS;
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
    server_.Script({to("/other dir/f?x=1"), to(server_.Url("/end")), whole("new")});
    EXPECT_EQ(0, Get());
    EXPECT_EQ("new", Content());
    const std::vector<std::string> requests = server_.requests();
    ASSERT_EQ(3U, requests.size());
    EXPECT_TRUE(requests[1].starts_with("GET /other%20dir/f?x=1 "));
    EXPECT_TRUE(requests[2].starts_with("GET /end "));
    server_.Script({to("/again")});
    EXPECT_EQ(DOWNLOAD_BAD_STATUS, Get());
    EXPECT_LT(server_.requests().size(), 10U);
}

TEST_F(HttpUtil, PartIsContinuedOnlyWithProof) {
    if (setxattr(directory_.path().c_str(), ATTRIBUTE, "x", 1, 0) != 0)
        GTEST_SKIP() << "no attributes";
    const std::string tag = "ETag: \"a\"\r\n";
    const std::string dates = std::string(OLD_DATE) + DATE;
    const std::string same_second = std::string(OLD_DATE) + "Date" + (OLD_DATE + 13);
    const std::string all = whole("ABCDEFGHIJ");
    const std::string cut = response("206 Partial", "Content-Range: bytes 5-9/10\r\n", "56");
    const std::string endless =
        response("206 Partial", "Content-Range: bytes 5-9/10\r\nTransfer-Encoding: chunked\r\n",
                 "6\r\n56789A\r\n") +
        Server::HOLD;
    const std::string by_date = "If-Range: Mon, 01 Jan 2024 00:00:00 GMT";
    const std::string by_tag = "If-Range: \"a\"";
    const std::string old = "0123456789";
    const std::string fresh = "ABCDEFGHIJ";
    const struct {
        const char* name;
        std::string first;  // headers of the download that was cut
        std::vector<std::string> script;
        std::string asked;  // header of the next request, "" for no range
        int result;
        std::string content;
    } rows[] = {
        {"strong tag", tag, {part(tag, "5-9/10", "56789")}, by_tag, 0, old},
        {"old date", dates, {part("", "5-9/10", "56789")}, by_date, 0, old},
        {"changed", tag, {all}, by_tag, 0, fresh},
        {"other tag", tag, {part("ETag: \"b\"\r\n", "5-9/10", "56789"), all}, by_tag, 0, fresh},
        {"other part", tag, {part(tag, "4-9/10", "456789"), all}, by_tag, 0, fresh},
        {"other size", tag, {part(tag, "5-10/11", "56789A"), all}, by_tag, 0, fresh},
        {"refused", tag, {sized("416 Range", "", ""), all}, by_tag, 0, fresh},
        {"for ever", tag, {sized("416 Range", "", "")}, by_tag, DOWNLOAD_BAD_STATUS, "01234"},
        {"gone", tag, {sized("404 Not Found", "", "x")}, by_tag, DOWNLOAD_BAD_STATUS, "01234"},
        {"cut again", tag, {cut}, by_tag, DOWNLOAD_BROKEN, "0123456"},
        {"part without end", tag, {endless}, by_tag, DOWNLOAD_BROKEN, "01234"},
        {"weak tag", "ETag: W/\"a\"\r\n", {all}, "", 0, fresh},
        {"date of this very second", same_second, {all}, "", 0, fresh},
        {"nothing to prove it", "", {all}, "", 0, fresh},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        LeavePart(row.first);
        server_.Script(row.script);
        EXPECT_EQ(row.result, Get(1));
        EXPECT_EQ(row.content, Content());
        EXPECT_EQ(!row.asked.empty(), Asked(0, "Range: bytes=5-\r\n"));
        EXPECT_TRUE(row.asked.empty() || Asked(0, row.asked + "\r\n"));
        EXPECT_EQ(row.result != 0, Marked());
        EXPECT_EQ(row.result == 0, calls_.finished);
    }
}

TEST_F(HttpUtil, WhatLiesThereIsContinuedOnlyIfItIsThePart) {
    if (setxattr(directory_.path().c_str(), ATTRIBUTE, "x", 1, 0) != 0)
        GTEST_SKIP() << "no attributes";
    const std::string tag = "ETag: \"a\"\r\n";
    const std::string all = whole("ABCDEFGHIJ", tag);
    LeavePart(tag);
    server_.Script({all});
    EXPECT_EQ(0, GetUrl(server_.Url("/2.0/f.bin"), 1));  // another version: same tag and size
    EXPECT_EQ(0, Get(1));                                // a complete file is nobody's part
    EXPECT_FALSE(Asked(0, "Range:") || Asked(1, "Range:"));
    LeavePart(tag);
    server_.Script({all});
    EXPECT_EQ(0, Get(0));
    EXPECT_FALSE(Asked(0, "Range:"));

    // After a power cut only the synced bytes count; here the last two are not.
    LeavePart(tag);
    char mark[1024] = "";
    ASSERT_LT(0, getxattr(path_.c_str(), ATTRIBUTE, mark, sizeof mark));
    const std::string text(mark);
    const std::string after_boot = "1\nanother boot\n3" + text.substr(text.find("\n5\n") + 2);
    ASSERT_EQ(0, setxattr(path_.c_str(), ATTRIBUTE, after_boot.data(), after_boot.size(), 0));
    server_.Script({part("", "3-9/10", "3456789")});
    EXPECT_EQ(0, Get(1));
    EXPECT_TRUE(Asked(0, "Range: bytes=3-\r\n"));
    EXPECT_EQ("0123456789", Content());

    // All bytes are there, but the last run ended before it could say so.
    for (const int result : {HTTP_DOWNLOAD_COMPLETE_ALREADY, 0}) {
        LeavePart(tag);
        std::ofstream(path_, std::ios::in | std::ios::out) << "0123456789";  // keeps the mark
        server_.Script({result == 0 ? all : part("", "9-9/10", "9")});
        EXPECT_EQ(result, Get(1));
        EXPECT_TRUE(Asked(0, "Range: bytes=9-\r\n"));
        EXPECT_EQ(result == 0 ? "ABCDEFGHIJ" : "0123456789", Content());
        EXPECT_FALSE(Marked());
        EXPECT_TRUE(calls_.finished);
    }
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
    EXPECT_EQ(3, read(old.get(), bytes, sizeof bytes));
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
    calls_.stop = [&] { return calls_.idle >= 2; };
    for (const std::string& sent : {std::string("no connection yet"), std::string(),
                                    response("200 OK", "Content-Length: 9\r\n", "new"), chunk}) {
        SCOPED_TRACE(sent);
        const bool look_up = sent.starts_with("no");
        server_.Script({sent + Server::HOLD});
        // A time limit of the library would end in another result.
        EXPECT_EQ(HTTP_DOWNLOAD_CANCELLED, GetUrl(look_up ? "http://silent.test/" : server_.Url()));
        EXPECT_EQ(2U, calls_.idle);  // it is not asked again
        EXPECT_FALSE(calls_.finished);
    }
    (void)unsetenv("DNS_CLIENT_SERVERS");
}

TEST_F(HttpUtil, StalledServerIsGivenUp) {
    server_.Script({whole("x")});
    ASSERT_EQ(0, Get());  // loads the engine
    void* engine = dlopen("libhttp_util_engine.so", RTLD_NOW | RTLD_NOLOAD);
    void* symbol = dlsym(engine == nullptr ? RTLD_DEFAULT : engine, "http_util_engine_download");
    if (symbol == nullptr) GTEST_SKIP() << "one static program";
    server_.Script({response("200 OK", "Content-Length: 9\r\n", "new") + Server::HOLD});
    const std::string url = server_.Url();
    DownloadJob job;
    job.context = &context_;
    job.url = url.c_str();
    job.path = path_.c_str();
    job.limits.stall_s = 1;
    context_.progress = nullptr;
    EXPECT_EQ(DOWNLOAD_BROKEN, reinterpret_cast<int (*)(const DownloadJob*)>(symbol)(&job));
}

TEST_F(HttpUtil, NameIsLookedUpFromTheSourceAddress) {
    int port = 0;
    const UniqueFd dns = loopback_socket(SOCK_DGRAM, &port);
    ASSERT_EQ(0, setenv("DNS_CLIENT_SERVERS", ("127.0.0.1:" + std::to_string(port)).c_str(), 1));
    std::string asker;
    std::thread name_server([&] {
        char packet[512] = "";
        sockaddr_in from{};
        auto* peer = reinterpret_cast<sockaddr*>(&from);
        socklen_t size = sizeof from;
        (void)recvfrom(dns.get(), packet, sizeof packet, 0, peer, &size);
        asker = inet_ntoa(from.sin_addr);
        // The question again (a name of 14 bytes) with one address, 127.0.0.1.
        const std::string answer = std::string(packet, 2) +
                                   std::string("\x81\x80\0\1\0\1\0\0\0\0", 10) +
                                   std::string(packet + 12, 18) +
                                   std::string("\xc0\x0c\0\1\0\1\0\0\0\x09\0\4\x7f\0\0\1", 16);
        (void)sendto(dns.get(), answer.data(), answer.size(), 0, peer, size);
    });
    server_.Script({whole("new")});
    const std::string url =
        "http://updates.test" + server_.Url().substr(strlen("http://127.0.0.1"));
    const http_util_tlv source{1, 4, inet_addr("127.0.0.5")};
    EXPECT_EQ(0,
              http_download_file_progress_tlv(&context_, url.c_str(), path_.c_str(), 0, &source));
    name_server.join();
    EXPECT_EQ("127.0.0.5", asker);
    EXPECT_TRUE(Asked(0, "Host: updates.test:"));
    (void)unsetenv("DNS_CLIENT_SERVERS");
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
    while (port == 0 && fgets(line, sizeof line, tls.get()) != nullptr) {
        (void)sscanf(line, "ACCEPT 127.0.0.1:%d", &port);
    }
    if (port == 0) GTEST_SKIP() << "no openssl: " << directory_.Read("log");
    const std::string url = "https://127.0.0.1:" + std::to_string(port) + "/f";
    EXPECT_EQ(DOWNLOAD_NO_CONNECTION, GetUrl(url));
    bool mounted = false;
    // A mount namespace belongs to the thread that makes it, and goes with it.
    std::thread([&] {
        mounted = unshare(CLONE_NEWNS) == 0 &&
                  mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mount((directory_ / "cert").c_str(), "/etc/ssl/certs/ca-certificates.crt", "",
                        MS_BIND, nullptr) == 0;
        if (mounted) {
            EXPECT_EQ(0, GetUrl(url));
        }
    }).join();
    if (!mounted) GTEST_SKIP() << "only root can";
    EXPECT_EQ("new", Content());
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
