// The command-line service: matching by tables, on the daemon's own trees, then
// whole sessions over its real socket, on a real loop in a thread of its own.
#include "frame/platform/client_new.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <functional>
#include <future>
#include <thread>

#include "base/text.h"
#include "base/unique_fd.h"
#include "config/config_commands.h"
#include "host/client_new/cli_protocol.h"
#include "host/client_new/match.h"
#include "host/client_new/running_config.h"
#include "registry/app_registry.h"
#include "tests/support/cli_sample.h"
#include "tests/support/temp_dir.h"
#include "update/update_commands.h"

namespace {

using client_new::Frame;
using client_new::Grammar;
using client_new::match_complete;
using client_new::match_help;
using client_new::match_line;

constexpr int DEADLINE_MS = 20000;
constexpr char SOCKET_NAME[] = "oam/http_client/.http_client_cli";
constexpr char CONFIG_NAME[] = "oam/http_client/startup-config";
constexpr char RECORD[] = "[] no=0 context=0 debug=0 []\n";  // of "show record"

constexpr cli_node k_no = common_keyword_action("no", "", &cfg_http_update_tree, Tno_alt);
constexpr cli_node k_root_no = nop_action(&k_no, Tno_alt);
constexpr cli_node k_root = nop_action(&cfg_http_update_tree, &k_root_no);
constexpr Grammar CONFIG{&k_root, &k_no, nullptr};
constexpr Grammar EXEC{&exec_http_tree, nullptr, nullptr};

std::string summary(const client_new::Match& match) {
    const cli_record& r = match.record;
    if (match.handler == nullptr) return match.refusal;
    return std::string(r.words) + "|" + std::to_string(r.no_flag) + "|" + std::to_string(r.value1) +
           "|" + std::to_string(r.value2) + "|" + r.string1;
}

TEST(CliMatch, TakesAndRefusesLines) {
    const std::string fits(255, 'w'), server = "http update server ";
    const struct {
        const Grammar& grammar;
        std::string line;
        std::string expected;
    } rows[] = {
        {CONFIG, " ht up  mo\tman\r", "http update mode|0|0|0|"},
        {CONFIG, "http update mode", "% Incomplete command after \"mode\"\n"},
        {CONFIG, "no http update server h p 8", "http update server|1|8|0|h"},
        {CONFIG, server + fits, "http update server|0|0|0|" + fits},
        {CONFIG, server + fits + "w",
         "% Too long (at most 255 bytes): \"" + fits.substr(0, 64) + "...\"\n"},
        {CONFIG, server + "h port 65536", "% Out of range (1 to 65535): \"65536\"\n"},
        {CONFIG, server + "h port 8x", "% Not a number (1 to 65535): \"8x\"\n"},
        {CONFIG, "http update time daily 23:59", "http update time daily|0|23|59|"},
        {CONFIG, "http update time daily 24:00",
         "% Not a time of day (hh:mm, 00:00 to 23:59): \"24:00\"\n"},
        {CONFIG, "http update s", "% Ambiguous word: \"s\" (source_ip, server)\n"},
        {CONFIG, std::string("http\0", 5), "% Line with a zero byte\n"},
        {EXEC, "http update a", "|0|0|0|a"},  // an app's name, not "all"
        {EXEC, "http update display  b ", "|0|0|0|display  b"},
        {EXEC, "http update all b", "% Unexpected word: \"b\"\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        EXPECT_EQ(summary(match_line(row.grammar, row.line, 0)), row.expected);
    }
}

TEST(CliMatch, HelpAndCompletionShowWhatMayFollow) {
    EXPECT_EQ(match_help(CONFIG, "no http update mode "),
              "  <cr>\n  manual                manual update files\n");
    EXPECT_EQ(match_help(CONFIG, "http update server h port "),
              "  <1-65535>             default 80\n");
    EXPECT_EQ(match_help(CONFIG, "http x mode "), "% Unknown word: \"x\"\n");
    EXPECT_EQ(match_help(EXEC, "http update a b"),
              std::string("  LINE                  ") + reg_app_help_text() + "\n  <cr>\n");
    EXPECT_EQ(match_complete(CONFIG, "http update s"),
              (std::vector<std::string_view>{"source_ip", "server"}));
    EXPECT_TRUE(match_complete(CONFIG, "http update time daily ").empty());
}

TEST(CliReplay, SurvivesAnyFile) {
    const TempDir dir;
    setenv("PRINTK_SYSLOG_FILE", (dir / "log").c_str(), 1);
    std::string many = std::string(3000, '\0') + "\xff\n";
    for (int i = 0; i < 509; ++i) many += "x\n";
    dir.Write("many", many);
    dir.Write("huge", std::string(300000, '!'));
    ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    for (const auto& [name, said] : {std::pair("missing", ""),
                                     {"many", "10 more damaged lines"},
                                     {"huge", "too large"},
                                     {"pipe", "not a plain file"}}) {
        client_new::startup_config_replay(dir / name, CONFIG);
        const std::string log = dir.Read("log");
        EXPECT_TRUE(*said == '\0' ? log.empty() : log.find(said) != log.npos) << name << log;
    }
}

// An operator's program, as bare as it can be.
class Terminal {
  public:
    explicit Terminal(bool opens = true) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        text_copy(address.sun_path, client_new::cli_socket_path());
        socket_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        if (!opens) return;
        const client_new::OpenPayload open{client_new::PROTOCOL_VERSION, 0};
        Send(client_new::FRAME_OPEN, {reinterpret_cast<const char*>(&open), sizeof open});
        (void)Finish();
    }
    // A failure shows in what is received next.
    bool Bytes(std::string_view bytes) {
        return send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0;
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
                refused = frame.payload[0] != 0;
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
        while (reader_.Next(frame) != client_new::FrameReader::Result::kFrame) {
            pollfd waiting{socket_.get(), POLLIN, 0};
            char bytes[4096];
            if (poll(&waiting, 1, DEADLINE_MS) != 1) return false;
            const ssize_t count = recv(socket_.get(), bytes, sizeof bytes, 0);
            if (count <= 0) return false;
            reader_.Add({bytes, static_cast<size_t>(count)});
        }
        return true;
    }
    void Leave() { socket_.reset(); }
    bool refused = false;

  private:
    UniqueFd socket_;
    client_new::FrameReader reader_{client_new::REPLY_PAYLOAD_MAX};
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
                    "! comment\n\nhttp update server first\nhttp updat servr x\n"
                    "http update server bad%s\n\x7f\x45\x4c\x46\nhttp update server last\r\n"
                    "configure\nno http");
        std::promise<bool> started;
        s_loop = std::thread([&started] {
            tq_thread_master* master = tq_thread_master_create();
            started.set_value(cli_sample::start(master));
            cli_sample::serve(master);
        });
        ASSERT_TRUE(started.get_future().get());
    }
    static void TearDownTestSuite() {
        Terminal().Start("work quit");
        s_loop.join();
    }
    static inline TempDir s_dir;
    static inline std::thread s_loop;
};

// First: it looks at what the start left in the log.
TEST_F(CliService, StartReplacesStaleSocketAndReplaysConfiguration) {
    struct stat info {};
    ASSERT_EQ(stat((s_dir / SOCKET_NAME).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, mode_t{S_IFSOCK | 0600});
    const std::string log = s_dir.Read("log");
    for (const char* line : {"line 4: % Unknown word: \"servr\"", "line 5: % Invalid server bad%s.",
                             "line 6: % Unknown word: \"?ELF\"",
                             "line 8: % Unknown word: \"configure\"", "line 9: % Incomplete"}) {
        EXPECT_NE(log.find(line), log.npos) << log;
    }
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 5) << log;
    EXPECT_EQ(Terminal().Run("show running-config"), "http update server last\n");
}

TEST_F(CliService, WriteSavesWholeFileOrKeepsTheOldOne) {
    Terminal terminal;
    (void)terminal.Run("configure");
    (void)terminal.Run("http update server saved");
    EXPECT_EQ(terminal.Run("write"), "");
    const std::string saved = s_dir.Read(CONFIG_NAME);
    EXPECT_TRUE(saved.ends_with("\nhttp update server saved\n")) << saved;
    struct stat info {};
    ASSERT_EQ(stat((s_dir / CONFIG_NAME).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, mode_t{S_IFREG | 0600});

    std::filesystem::create_directory(s_dir / (std::string(CONFIG_NAME) + ".new"));
    (void)terminal.Run("no http update server");
    EXPECT_TRUE(terminal.Run("write").starts_with("<% Not saved: ")) << "and says why";
    EXPECT_TRUE(terminal.refused);
    EXPECT_EQ(s_dir.Read(CONFIG_NAME), saved);
}

TEST_F(CliService, ThreadsAreNamedEarlyLateOrNever) {
    Terminal terminal;
    terminal.Start("work hold");
    terminal.Send(client_new::FRAME_KEY, "x\x03");
    EXPECT_EQ(terminal.Finish(), "holding\nstopped\n") << "prints before it is named";
    EXPECT_EQ(terminal.Run("work stray"), "handler\n") << "a thread of no command";
    EXPECT_EQ(terminal.Run("work end-first"), "") << "the end is final, the next thread a stranger";
    EXPECT_EQ(terminal.Run("show record"), RECORD);
}

TEST_F(CliService, OperatorsOutputsDoNotMix) {
    Terminal terminals[4];
    for (int i = 0; i < 4; ++i) terminals[i].Start("work chatter" + std::to_string(i));
    for (int i = 0; i < 4; ++i) {
        std::string expected;
        for (int line = 0; line < 500; ++line) expected += "chatter" + std::to_string(i) + ".\n";
        EXPECT_EQ(terminals[i].Finish(), expected);
    }
}

TEST_F(CliService, NextCommandWaitsAndTerminalThatLeavesStopsItsOwn) {
    Terminal terminal, leaver;
    Frame frame{};
    for (Terminal* each : {&terminal, &leaver}) {
        each->Start("work hold");
        ASSERT_TRUE(each->Next(&frame));
        EXPECT_EQ(frame.payload, "holding\n");
    }
    const int before = cli_sample::g_ending;
    leaver.Leave();
    EXPECT_TRUE(eventually([&] { return cli_sample::g_ending > before; }));
    terminal.Start("show record");
    EXPECT_EQ(Terminal().Run("show record"), RECORD) << "others are not kept";
    terminal.Send(client_new::FRAME_KEY, "\x03");
    EXPECT_EQ(terminal.Finish(), "stopped\n");
    EXPECT_EQ(terminal.Finish(), RECORD);
}

TEST_F(CliService, TerminalThatDoesNotReadHoldsNobody) {
    const int before = cli_sample::g_ending;
    Terminal sleeper;
    sleeper.Start("work flood");
    EXPECT_EQ(Terminal().Run("show record"), RECORD) << "the loop goes on";
    EXPECT_EQ(cli_sample::g_ending, before) << "the thread waits for its terminal";
    EXPECT_TRUE(eventually([&] { return cli_sample::g_ending > before; })) << "but not for ever";
    Terminal late;
    late.Start("work flood");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // to overrun it, if it could
    const std::string output = late.Finish();
    EXPECT_EQ(output.size(), 4096U * 1024U) << "a terminal that reads gets everything";
    EXPECT_TRUE(output.ends_with("4095\n"));
}

TEST_F(CliService, MalformedPeerCostsOnlyItself) {
    const struct {
        const char* name;
        bool opens;
        client_new::FrameHeader header;
        std::string payload;
    } rows[] = {{"no opening", false, {client_new::FRAME_COMMAND, 0, 5}, "write"},
                {"other release", false, {client_new::FRAME_OPEN, 0, 8}, "releases"},
                {"huge frame", true, {client_new::FRAME_COMMAND, 0, 0xffffffff}, ""},
                {"unknown type", true, {77, 0, 0}, ""}};
    for (const auto& row : rows) {
        Terminal terminal(row.opens);
        terminal.Bytes({reinterpret_cast<const char*>(&row.header), sizeof row.header});
        terminal.Bytes(row.payload);
        const std::string answer = terminal.Finish();
        EXPECT_TRUE(answer.starts_with('[') && answer != "[lost]") << row.name << answer;
    }
    Terminal hurried, deaf;
    for (int i = 0; i < 40; ++i) hurried.Start("work hold");
    EXPECT_NE(hurried.Finish().find("[too many commands at once]"), std::string::npos);
    int asked = 0;  // never reads the answers
    while (asked < 100000 && deaf.Send(client_new::FRAME_HELP, "")) ++asked;
    EXPECT_LT(asked, 100000) << "its answers pile up without bound";
    EXPECT_EQ(Terminal().Run("show record"), RECORD);
}

TEST_F(CliService, SessionsAreBoundedAndFreedAgain) {
    std::vector<Terminal> terminals(20);
    int turned_away = 0;
    for (Terminal& terminal : terminals) turned_away += terminal.Run("show record") != RECORD;
    EXPECT_GE(turned_away, 4);
    terminals.clear();
    EXPECT_TRUE(eventually([] { return Terminal().Run("show record") == RECORD; }));
}

}  // namespace
