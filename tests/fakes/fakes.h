// Fakes of the platform libraries for tests of the daemon's own code: virtual
// time, a recording terminal, a scripted download library. They replace the
// libraries of host/ at link time; registration packets go through the real one.
// Threads: the recorders may be filled from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "frame/platform/client_new.h"
#include "frame/platform/http_util.h"
#include "frame/platform/tech_support_msg.h"
#include "frame/platform/tq_thread.h"

namespace fakes {

// All of them back to their defaults, nothing recorded.
void Reset();

// --- event loop, virtual time. tq_thread_fetch yields what is ready now and
// null when nothing is, so that a thread that runs a loop ends and its test
// drives the loop. Using a handle that is not pending aborts.
// Lets time pass on a loop: timers that come due run in order of their time.
void Advance(tq_thread_master* loop, long seconds);
// Runs the read tasks whose descriptors are readable now or within the time;
// returns how many ran.
int RunReadable(tq_thread_master* loop, int timeout_ms);
// Seconds left to the timers that are pending on a loop.
std::vector<long> Timers(tq_thread_master* loop);
// Adding a timer fails while set.
void FailTimers(bool fail);

// --- terminal
std::string Terminal();      // everything printed since the last call
std::string ConfigLines();   // running-configuration lines since the last call, "\n" after each
std::string ConfigErrors();  // error replies to configuration commands since the last call
void TypeKey(int key);       // next key for cli_getc_no_block
// Trees that were offered, by mode.
std::map<int, const cli_node*> Trees();
void FailCliInit(bool fail);

// --- logs: the lines of the debug log since the last call
std::string Syslog();

// --- downloads: each call goes to the script, which gives the result; without
// one every source fails
struct Download {
    std::string url;
    std::string path;
    unsigned flag;
    std::string source;  // dotted text, empty without source address
};
using DownloadScript = std::function<int(DownloadCtx* context, const Download& download)>;
void ScriptDownloads(DownloadScript script);
std::vector<Download> Downloads();  // since the last call
int DownloadDebug();                // opened minus closed

// --- technical support
std::string TechOutput();  // since the last call
int TechCompletions();
std::vector<std::string> DumpFiles();
tech_service_callback TechCallback();  // null when no service was offered
std::string TechService();             // its name
void FailTechInit(bool fail);

// --- name service: host name to dotted text; a name that is absent fails, one
// with an empty address is not resolved
void SetHost(const std::string& name, const std::string& address);
void FailDnsInit(bool fail);
std::string DnsSource();  // address that the last look-up was to leave from

// --- device: texts of the system information (absent: the call fails) and the
// content of device files by plain path (absent: no such file)
void SetSystemText(const std::string& call, const std::string& text);
void SetDeviceFile(const std::string& path, const std::string& content);

// --- health monitor: result of every call
void SetHamResult(int result);
// Calls so far as "name(argument,...)" lines, process and thread ids left out.
std::string HamCalls();

// --- CPU rule: none applies while empty
void SetCpuRule(const std::vector<int>& cpus);
std::string CpuRuleProcess();  // the process last asked for

}  // namespace fakes
