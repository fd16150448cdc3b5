// The command runs in a process of its own, where its output can be held back until its end
// is known, and its complaints go into the document instead of standard error.
#include "json_document.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "base/file.h"
#include "capture.h"

namespace {

constexpr int STATUS_TROUBLE = 2;
constexpr int STATUS_NO_PROGRAM = 127;  // and above: no status of a command

// The first line, without what is no plain text: paths may hold anything.
std::string reason_of(const Captured& captured) {
    if (captured.hung) return "the daemon does not answer";
    constexpr std::string_view program = "http_client_cli: ";
    std::string_view line = captured.output;
    line = line.substr(0, line.find('\n'));
    if (line.starts_with(program)) line.remove_prefix(program.size());
    if (captured.status == 0) return "the document is not whole";
    std::string reason(line);
    for (char& c : reason) {
        if (c < 0x20 || c > 0x7e) c = '?';
    }
    return reason;
}

std::string error_document(std::string_view message, int status) {
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    (void)writer.StartObject();
    (void)writer.Key("error");
    (void)writer.StartObject();
    (void)writer.Key("message");
    (void)writer.String(message.data(), static_cast<rapidjson::SizeType>(message.size()));
    (void)writer.Key("status");
    (void)writer.Int(status);
    (void)writer.EndObject();
    (void)writer.EndObject();
    return std::string(text.GetString(), text.GetSize()) + "\n";
}

}  // namespace

int json_document_print(CommandRunner run) {
    const Captured captured = capture([&] { return run("show http-update json"); });
    int status = captured.status;
    std::string text = captured.output;
    const bool whole = status == 0 && text.starts_with('{') && text.ends_with("}\n");
    if (!whole) {
        if (captured.hung || status == 0 || status >= STATUS_NO_PROGRAM) status = STATUS_TROUBLE;
        text = error_document(reason_of(captured), status);
    }
    const int error = file_write_all(STDOUT_FILENO, text);
    if (error == 0) return status;
    (void)fprintf(stderr, "http_client_cli: standard output: %s\n", strerror(error));
    return STATUS_TROUBLE;
}
