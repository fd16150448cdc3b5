// The command-line service: matching by tables, then whole sessions over its real
// socket, on a real loop in a thread of its own.
#include "frame/platform/client_new.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <functional>
#include <future>
#include <thread>

#include "frame/text.h"
#include "frame/unique_fd.h"
#include "host/client_new/cli_protocol.h"
#include "host/client_new/match.h"
#include "host/client_new/running_config.h"
#include "tests/support/cli_sample.h"
#include "tests/support/temp_dir.h"

namespace {

using client_new::Frame;
using client_new::Grammar;
using client_new::match_line;

constexpr int DEADLINE_MS = 20000;
constexpr char SOCKET_NAME[] = "oam/http_client/.http_client_cli";
constexpr char CONFIG_NAME[] = "oam/http_client/startup-config";

constexpr cli_node k_no = common_keyword_action("no", "", &cli_sample::k_config, Tno_alt);
constexpr cli_node k_root_no = nop_action(&k_no, Tno_alt);
constexpr cli_node k_root = nop_action(&cli_sample::k_config, &k_root_no);
constexpr Grammar CONFIG{&k_root, &k_no, nullptr};
const Grammar EXEC{&cli_sample::k_exec, nullptr, nullptr};

std::string summary(const client_new::Match& match) {
    const cli_record& r = match.record;
    if (match.handler == nullptr) return match.refusal;
    return std::string(r.words) + "|" + std::to_string(r.no_flag) + "|" + std::to_string(r.value1) +
           "|" + std::to_string(r.value2) + "|" + r.string1;
}

TEST(CliMatch, TakesAndRefusesLines) {
    const std::string long_word(256, 'w');
    const std::string fits(255, 'w');
    const struct {
        const char* name;
        const Grammar& grammar;
        std::string line;
        std::string expected;
    } rows[] = {
        {"abbreviated", CONFIG, " ht up  mo\tman\r", "http update mode|0|0|0|"},
        {"no: both branches of no-prefix", CONFIG, "no http update mode",
         "http update mode|1|0|0|"},
        {"no: other branch", CONFIG, "no http update mode manual", "http update mode|1|0|0|"},
        {"without no the word is due", CONFIG, "http update mode",
         "% Incomplete command after \"mode\"\n"},
        {"no before the words are known", CONFIG, "no http update time", "|1|0|0|"},
        {"no with argument", CONFIG, "no http update server h port 8",
         "http update server|1|8|0|h"},
        {"no without argument", CONFIG, "no http update server", "http update server|1|0|0|"},
        {"string longest", CONFIG, "http update server " + fits,
         "http update server|0|0|0|" + fits},
        {"string too long", CONFIG, "http update server " + long_word,
         "% Too long (at most 255 bytes): \"" + long_word.substr(0, 64) + "...\"\n"},
        {"highest port", CONFIG, "http update server h port 65535",
         "http update server|0|65535|0|h"},
        {"port 0", CONFIG, "http update server h port 0", "% Out of range (1 to 65535): \"0\"\n"},
        {"huge port", CONFIG, "http update server h port 99999999999999999999",
         "% Out of range (1 to 65535): \"99999999999999999999\"\n"},
        {"no number", CONFIG, "http update server h port 8x",
         "% Not a number (1 to 65535): \"8x\"\n"},
        {"time", CONFIG, "http update time daily 23:59", "http update time daily|0|23|59|"},
        {"hour 24", CONFIG, "http update time daily 24:00",
         "% Not a time of day (hh:mm, 00:00 to 23:59): \"24:00\"\n"},
        {"one digit", CONFIG, "http update time daily 3:05",
         "% Not a time of day (hh:mm, 00:00 to 23:59): \"3:05\"\n"},
        {"unknown, not printable", CONFIG, "http \x1b[2J", "% Unknown word: \"?[2J\"\n"},
        {"one word too many", CONFIG, "http update mode manual now",
         "% Unexpected word: \"now\"\n"},
        {"nothing", CONFIG, " ", "% Empty command\n"},
        {"zero byte", CONFIG, std::string("http\0", 5), "% Line with a zero byte\n"},
        {"line too long", CONFIG, std::string(1024, 'x'), "% Line too long (at most 1023 bytes)\n"},
        {"keyword's value", EXEC, "http update all", "|0|0|1|"},
        {"abbreviation before free text", EXEC, "http update d", "|0|0|0|"},
        {"free text when the rest fits no keyword", EXEC, "http update d  e ", "|0|0|0|d  e"},
        {"whole keyword never is free text", EXEC, "http update all b",
         "% Unexpected word: \"b\"\n"},
        {"line too long for its slot", EXEC, "http update b " + fits,
         "% Too long (at most 255 bytes): \"b " + fits.substr(0, 62) + "...\"\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(summary(match_line(row.grammar, row.line, 0)), row.expected);
    }
}

TEST(CliMatch, AmbiguityNamesTheKeywordsOncePerText) {
    static constexpr cli_node end = eol_action(cli_sample::show_record);
    static constexpr cli_node store = common_keyword_action("store", "", &end, Tno_alt);
    static constexpr cli_node stop_too = common_keyword_action("stop", "", &end, &store);
    static constexpr cli_node stop = common_keyword_action("stop", "", &store, &stop_too);
    const Grammar grammar{&stop, nullptr, nullptr};
    EXPECT_EQ(match_line(grammar, "sto", 0).refusal, "% Ambiguous word: \"sto\" (stop, store)\n");
    EXPECT_NE(match_line(grammar, "stop", 0).handler, nullptr);
    EXPECT_NE(match_line(grammar, "stop store", 0).handler, nullptr) << "both branches are open";
    EXPECT_EQ(client_new::match_complete(grammar, "st"),
              (std::vector<std::string_view>{"stop", "store"}));
}

TEST(CliMatch, RingOfNodesEnds) {
    static cli_node ring = nop_action(nullptr, Tno_alt);
    ring.next = &ring;
    EXPECT_EQ(match_line({&ring, nullptr, nullptr}, "x", 0).handler, nullptr);
    EXPECT_EQ(client_new::running_config_text({&ring}), "");
}

TEST(CliMatch, HelpShowsWhatMayFollow) {
    EXPECT_EQ(client_new::match_help(CONFIG, "no http update mode "),
              "  <cr>\n  manual                manual update files\n");
    EXPECT_EQ(client_new::match_help(CONFIG, "http update server h port "),
              "  <1-65535>             default 80\n");
    EXPECT_EQ(client_new::match_help(CONFIG, "http upd"),
              "  update                config http update\n");
    EXPECT_EQ(client_new::match_help(CONFIG, "http x mode "), "% Unknown word: \"x\"\n");
    cli_sample::g_file_help.replace(7, 4, "beta");
    EXPECT_EQ(client_new::match_help(EXEC, "http update x"),
              "  LINE                  Files: beta\n");
    EXPECT_EQ(client_new::match_complete(CONFIG, "http update m").size(), 1U);
    EXPECT_TRUE(client_new::match_complete(CONFIG, "http update time daily ").empty());
}

// An operator's program, as bare as it can be.
class Terminal {
  public:
    enum Opening { kOpen, kSilent };
    explicit Terminal(Opening opening = kOpen, uint32_t flags = 0) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        text_copy(address.sun_path, client_new::cli_socket_path());
        socket_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        if (opening == kSilent) return;
        const client_new::OpenPayload open{client_new::PROTOCOL_VERSION, flags};
        Send(client_new::FRAME_OPEN, {reinterpret_cast<const char*>(&open), sizeof open});
        (void)Finish();
    }
    // A failure shows in what is received next.
    bool Bytes(std::string_view bytes) {
        return send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    bool Send(client_new::FrameType type, std::string_view payload) {
        std::string bytes;
        client_new::frame_append(&bytes, type, payload);
        return Bytes(bytes);
    }
    void Start(std::string_view line) { Send(client_new::FRAME_COMMAND, line); }
    // Output to the end of the command; refusals in angle brackets, the reason of a
    // closed session in square ones.
    std::string Finish() {
        std::string output;
        for (Frame frame{}; Next(&frame);) {
            if (frame.type == client_new::FRAME_BYE) return output + "[" + frame.payload + "]";
            if (frame.type == client_new::FRAME_REFUSAL) frame.payload = "<" + frame.payload + ">";
            if (frame.type == client_new::FRAME_END) {
                refused_ = frame.payload[0] != 0;
                return output;
            }
            output += frame.payload;
        }
        return output + "[lost]";
    }
    std::string Run(std::string_view line) {
        Start(line);
        return Finish();
    }
    bool Next(Frame* frame) {
        for (;;) {
            if (reader_.Next(frame) == client_new::FrameReader::Result::kFrame) return true;
            pollfd waiting{socket_.get(), POLLIN, 0};
            char bytes[4096];
            if (poll(&waiting, 1, DEADLINE_MS) != 1) return false;
            const ssize_t count = recv(socket_.get(), bytes, sizeof bytes, 0);
            if (count <= 0) return false;
            reader_.Add({bytes, static_cast<size_t>(count)});
        }
    }
    bool refused() const { return refused_; }
    void Leave() { socket_.reset(); }

  private:
    UniqueFd socket_;
    client_new::FrameReader reader_{client_new::REPLY_PAYLOAD_MAX};
    bool refused_ = false;
};

bool eventually(const std::function<bool()>& condition) {
    for (int waited_ms = 0; waited_ms < DEADLINE_MS; waited_ms += 5) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// The service is the process's only one, so all tests share it.
class CliService : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        (void)umask(0);  // as the daemon has it
        setenv("TMPDIR", s_dir.path().c_str(), 1);
        setenv("DATA_VEMO_DIR", s_dir.path().c_str(), 1);
        setenv("PRINTK_SYSLOG_FILE", (s_dir / "log").c_str(), 1);
        s_dir.Write(SOCKET_NAME, "stale");
        s_dir.Write(CONFIG_NAME,
                    "! comment\n\nhttp update server first port 81\nhttp updat servr x\n"
                    "http update server bad%s\n\x7f\x45\x4c\x46\nhttp update server last\r\n"
                    "configure\n"
                    "http update time daily 24:00");
        std::promise<bool> started;
        s_loop = std::thread([&started] {
            tq_thread_master* master = tq_thread_master_create();
            s_jobs = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
            (void)tq_thread_add_read_withname(master, run_job, nullptr, s_jobs, "jobs");
            started.set_value(cli_sample::start(master));
            cli_sample::serve(master);
        });
        ASSERT_TRUE(started.get_future().get());
    }
    static void TearDownTestSuite() {
        OnLoop([] { cli_sample::g_stop = true; });
        s_loop.join();
    }
    // Runs something on the main loop and waits for it.
    static void OnLoop(const std::function<void()>& job) {
        std::promise<void> done;
        s_job = [&] {
            job();
            done.set_value();
        };
        eventfd_write(s_jobs, 1);
        done.get_future().get();
    }
    static int run_job(tq_thread* task) {
        eventfd_t count = 0;
        eventfd_read(s_jobs, &count);
        (void)tq_thread_add_read_withname(task->master, run_job, nullptr, s_jobs, "jobs");
        std::exchange(s_job, nullptr)();
        return 0;
    }
    static std::string Replay(const std::string& path) {
        std::filesystem::remove(s_dir / "log");
        OnLoop([&] { client_new::startup_config_replay(path, CONFIG); });
        return s_dir.Read("log");
    }

    static inline TempDir s_dir;
    static inline std::thread s_loop;
    static inline int s_jobs = -1;
    static inline std::function<void()> s_job;
};

// First: it looks at what the start left in the log.
TEST_F(CliService, StartReplacesStaleSocketAndReplaysConfiguration) {
    struct stat info {};
    ASSERT_EQ(stat((s_dir / SOCKET_NAME).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, mode_t{S_IFSOCK | 0600});
    const std::string log = s_dir.Read("log");
    for (const char* line :
         {"line 4: % Unknown word: \"servr\"", "line 5: % Invalid server bad%s.",
          "line 6: % Unknown word: \"?ELF\"", "line 8: % Unknown word: \"configure\"",
          "line 9: % Not a time of day"}) {
        EXPECT_NE(log.find(line), log.npos) << log;
    }
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 5) << log;
    EXPECT_EQ(Terminal().Run("show running-config"), "http update server last port 80\n");
}

TEST_F(CliService, ReplaySurvivesAnyFile) {
    s_dir.Write("binary", std::string(3000, '\0') + "\n" + std::string(50, '\n') + "\xff\n");
    s_dir.Write("huge", std::string(300000, '!'));
    s_dir.Write("many", [] {
        std::string lines;
        for (int i = 0; i < 30; ++i) lines += "x\n";
        return lines;
    }());
    ASSERT_EQ(mkfifo((s_dir / "pipe").c_str(), 0600), 0);
    EXPECT_NE(Replay(s_dir / "binary").find("line 1: % Line too long"), std::string::npos);
    EXPECT_NE(Replay(s_dir / "huge").find("too large"), std::string::npos);
    EXPECT_NE(Replay(s_dir / "many").find("10 more damaged lines"), std::string::npos);
    EXPECT_NE(Replay(s_dir / "pipe").find("not a plain file"), std::string::npos);
    EXPECT_EQ(Replay(s_dir / "missing"), "");
}

TEST_F(CliService, ModesFlagsAndRefusals) {
    Terminal terminal(Terminal::kOpen, client_new::OPEN_SECOND_LIST);
    EXPECT_EQ(terminal.Run("show http-update"),
              "words=[] no=0 context=1 debug=0 v1=0 v2=0 s1=[] s2=[]\n");
    EXPECT_EQ(terminal.Run("debug http-client"),
              "words=[] no=0 context=1 debug=ff v1=0 v2=0 s1=[] s2=[]\n");
    EXPECT_EQ(terminal.Run("no debug http-client info"),
              "words=[] no=1 context=2 debug=1 v1=0 v2=0 s1=[] s2=[]\n");
    EXPECT_EQ(
        terminal.Run("debug all") + terminal.Run("no debug all") + terminal.Run("show debugging"),
        "debug switch 1\ndebug switch 2\ndebug switch 3\n");
    EXPECT_EQ(terminal.Run("end"), "<% Unknown word: \"end\"\n>");
    EXPECT_EQ(terminal.Run("no http update all"), "<% Unknown word: \"http\"\n>");
    EXPECT_EQ(terminal.Run("configure"), "");
    EXPECT_EQ(terminal.Run("http update server bad%s"), "<% Invalid server bad%s. \n>");
    EXPECT_TRUE(terminal.refused());
    EXPECT_EQ(terminal.Run("http update mode manual"),
              "words=[http update mode] no=0 context=1 debug=0 v1=0 v2=0 s1=[] s2=[]\n");
    EXPECT_FALSE(terminal.refused());
    EXPECT_EQ(terminal.Run("e"), "<% Ambiguous word: \"e\" (end, exit)\n>");
    EXPECT_EQ(terminal.Run("end"), "");
    EXPECT_EQ(terminal.Run("! comment"), "");
}

TEST_F(CliService, WriteSavesWholeFileOrKeepsTheOldOne) {
    Terminal terminal;
    (void)terminal.Run("configure");
    (void)terminal.Run("http update server saved");
    EXPECT_EQ(terminal.Run("write"), "");
    const std::string saved = s_dir.Read(CONFIG_NAME);
    EXPECT_TRUE(saved.ends_with("\nhttp update server saved port 80\n")) << saved;
    struct stat info {};
    ASSERT_EQ(stat((s_dir / CONFIG_NAME).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, mode_t{S_IFREG | 0600});

    const std::string in_the_way = s_dir / (std::string(CONFIG_NAME) + ".new");
    std::filesystem::create_directory(in_the_way);
    (void)terminal.Run("no http update server");
    EXPECT_TRUE(terminal.Run("write").starts_with("<% Not saved: ")) << "and says why";
    EXPECT_TRUE(terminal.refused());
    EXPECT_EQ(s_dir.Read(CONFIG_NAME), saved);
    std::filesystem::remove(in_the_way);
    EXPECT_EQ(Replay(s_dir / CONFIG_NAME), "") << "what was written can be read back";
    EXPECT_EQ(cli_sample::g_server, "saved");
}

TEST_F(CliService, ThreadsAreNamedEarlyLateOrNever) {
    Terminal terminal;
    const auto stop = [&](const char* line) {
        std::string bytes;
        client_new::frame_append(&bytes, client_new::FRAME_COMMAND, line);
        client_new::frame_append(&bytes, client_new::FRAME_KEY, "x\x03");
        terminal.Bytes(bytes);
        return terminal.Finish();
    };
    EXPECT_EQ(stop("work hold"), "holding\nstopped\n") << "prints before it is named";
    EXPECT_EQ(terminal.Run("work stray"), "handler\n") << "a thread of no command";
    EXPECT_EQ(terminal.Run("work end-first"), "") << "the end is final, the next thread a stranger";
    EXPECT_EQ(terminal.Run("show http-update").substr(0, 5), "words");
}

TEST_F(CliService, OperatorsOutputsDoNotMix) {
    Terminal terminals[4];
    for (int i = 0; i < 4; ++i)
        terminals[i].Start("work chatter <" + std::string(40, char('a' + i)));
    for (int i = 0; i < 4; ++i) {
        std::string expected;
        for (int line = 0; line < 500; ++line) {
            expected += "<" + std::string(40, char('a' + i)) + ".\n";
        }
        EXPECT_EQ(terminals[i].Finish(), expected);
    }
}

TEST_F(CliService, NextCommandWaitsForTheOneThatRuns) {
    Terminal terminal;
    Terminal other;
    cli_sample::g_go = false;
    terminal.Start("work hold");
    terminal.Start("show http-update");
    Frame frame{};
    ASSERT_TRUE(terminal.Next(&frame));
    EXPECT_EQ(frame.payload, "holding\n");
    EXPECT_TRUE(other.Run("show http-update").starts_with("words")) << "others are not kept";
    cli_sample::g_go = true;
    EXPECT_EQ(terminal.Finish(), "stopped\n");
    EXPECT_TRUE(terminal.Finish().starts_with("words"));
    cli_sample::g_go = false;
}

TEST_F(CliService, TerminalThatLeavesStopsItsCommand) {
    const int before = cli_sample::g_held;
    Terminal leaver;
    leaver.Start("work hold");
    Frame frame{};
    ASSERT_TRUE(leaver.Next(&frame));
    leaver.Leave();
    EXPECT_TRUE(eventually([&] { return cli_sample::g_held > before; }));
    EXPECT_TRUE(Terminal().Run("show http-update").starts_with("words"));
}

TEST_F(CliService, TerminalThatDoesNotReadHoldsNobody) {
    const int before = cli_sample::g_flooded;
    Terminal sleeper;
    sleeper.Start("work flood");
    Terminal other;
    EXPECT_TRUE(other.Run("show http-update").starts_with("words")) << "the loop goes on";
    EXPECT_EQ(cli_sample::g_flooded, before) << "the thread waits for its terminal";
    EXPECT_TRUE(eventually([&] { return cli_sample::g_flooded > before; })) << "but not for ever";

    Terminal reader;
    const std::string output = reader.Run("work flood");
    EXPECT_EQ(output.size(), 4096U * 1024U) << "a terminal that reads gets everything";
    EXPECT_TRUE(output.ends_with("4095\n"));
}

TEST_F(CliService, MalformedPeerCostsOnlyItself) {
    const auto frame = [](uint16_t type, uint32_t length, std::string_view payload) {
        const client_new::FrameHeader header{type, 0, length};
        return std::string(reinterpret_cast<const char*>(&header), sizeof header) +
               std::string(payload);
    };
    const struct {
        const char* name;
        Terminal::Opening opening;
        std::string bytes;
    } rows[] = {
        {"no opening", Terminal::kSilent, frame(client_new::FRAME_COMMAND, 5, "write")},
        {"short opening", Terminal::kSilent, frame(client_new::FRAME_OPEN, 2, "xx")},
        {"other release", Terminal::kSilent, frame(client_new::FRAME_OPEN, 8, "releases")},
        {"huge frame", Terminal::kOpen, frame(client_new::FRAME_COMMAND, 0xffffffff, "")},
        {"unknown type", Terminal::kOpen, frame(77, 0, "")},
        {"opened twice", Terminal::kOpen, frame(client_new::FRAME_OPEN, 8, "releases")},
    };
    Terminal bystander;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Terminal terminal(row.opening);
        terminal.Bytes(row.bytes);
        const std::string answer = terminal.Finish();
        EXPECT_TRUE(answer.starts_with('[') && answer != "[lost]") << answer;
        EXPECT_TRUE(bystander.Run("show http-update").starts_with("words"));
    }
    Terminal hurried;
    for (int i = 0; i < 40; ++i) hurried.Start("work hold");
    EXPECT_NE(hurried.Finish().find("[too many commands at once]"), std::string::npos);
    Terminal deaf;  // asks, and never reads the answers
    int asked = 0;
    while (asked < 100000 && deaf.Send(client_new::FRAME_HELP, "")) ++asked;
    EXPECT_LT(asked, 100000) << "its answers pile up without bound";
}

TEST_F(CliService, SessionsAreBoundedAndFreedAgain) {
    std::vector<Terminal> terminals(20);
    int turned_away = 0;
    for (Terminal& terminal : terminals) {
        turned_away += terminal.Run("show http-update") == "[lost]" ? 1 : 0;
    }
    EXPECT_GE(turned_away, 4);
    terminals.clear();
    EXPECT_TRUE(eventually([] { return Terminal().Run("show http-update") != "[lost]"; }));
}

}  // namespace
