// Downloads by script and a name service from a table.
#include <arpa/inet.h>

#include <cctype>
#include <cstring>

#include "frame/platform/dnsclient.h"
#include "tests/fakes/fake_state.h"
#include "tests/fakes/fakes.h"

namespace fakes {

struct NetworkState {
    DownloadScript script;
    std::vector<Download> downloads;
    int download_debug;
    std::map<std::string, std::string> hosts;
    bool fail_dns_init;
    int lookups;
    std::string dns_source;
};
static NetworkState s_state GUARDED_BY(fake_lock);

void ResetNetwork() { s_state = NetworkState{}; }

void ScriptDownloads(DownloadScript script) {
    MutexLock guard(fake_lock);
    s_state.script = std::move(script);
}

std::vector<Download> Downloads() {
    MutexLock guard(fake_lock);
    return Take(&s_state.downloads);
}

int DownloadDebug() {
    MutexLock guard(fake_lock);
    return s_state.download_debug;
}

void SetHost(const std::string& name, const std::string& address) {
    MutexLock guard(fake_lock);
    s_state.hosts[name] = address;
}

void FailDnsInit(bool fail) {
    MutexLock guard(fake_lock);
    s_state.fail_dns_init = fail;
}

int DnsLookups() {
    MutexLock guard(fake_lock);
    return s_state.lookups;
}

std::string DnsSource() {
    MutexLock guard(fake_lock);
    return s_state.dns_source;
}

static std::string Dotted(in_addr address) {
    char text[INET_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET, &address, text, sizeof(text));
}

static int RunDownload(DownloadCtx* context, const Download& download) {
    DownloadScript script;
    {
        MutexLock guard(fake_lock);
        s_state.downloads.push_back(download);
        script = s_state.script;
    }
    return script ? script(context, download) : -1;
}

}  // namespace fakes

using namespace fakes;

extern "C" {

int http_download_file_progress(DownloadCtx* context, const char* url, const char* path,
                                unsigned flag) {
    return RunDownload(context, {url, path, flag, ""});
}

int http_download_file_progress_tlv(DownloadCtx* context, const char* url, const char* path,
                                    unsigned flag, const http_util_tlv* source) {
    const bool known = source->type == 1 && source->length == 4;
    return RunDownload(context, {url, path, flag, known ? Dotted({source->address}) : "bad tlv"});
}

void http_open_debug() {
    MutexLock guard(fake_lock);
    s_state.download_debug++;
}

void http_close_debug() {
    MutexLock guard(fake_lock);
    s_state.download_debug--;
}

int dns_client_agent_init() {
    MutexLock guard(fake_lock);
    return s_state.fail_dns_init ? -1 : 0;
}

bool hostname_verify(const char* host) {
    for (const char* c = host; *c != '\0'; c++) {
        if (isalnum(static_cast<unsigned char>(*c)) == 0 && strchr("-._", *c) == nullptr)
            return false;
    }
    return *host != '\0';
}

int dns_domain_to_ip(DnsRequest* request) {
    MutexLock guard(fake_lock);
    s_state.lookups++;
    sockaddr_in source{};
    memcpy(&source, request->source, sizeof(source));
    s_state.dns_source = Dotted(source.sin_addr);
    const auto host = s_state.hosts.find(request->name);
    if (host == s_state.hosts.end()) return -1;
    if (inet_pton(AF_INET, host->second.c_str(), &request->address) != 1) return 0;
    request->family = AF_INET;
    request->result = DNS_RESULT_RESOLVED;
    return 0;
}
}
