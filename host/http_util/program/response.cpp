// Every field is looked at in all its occurrences: where two of them disagree, no
// reading of the response is better than another.

#include "host/http_util/program/response.h"

#include <cstdlib>
#include <cstring>

#include "base/text.h"

namespace {

// False when there are several that differ, or the text is too long. "" without any.
template <size_t N>
bool field_copy(CURL* easy, const char* name, char (&field)[N]) {
    size_t amount = 1;
    for (size_t i = 0; i < amount; ++i) {
        curl_header* header = nullptr;
        if (curl_easy_header(easy, name, i, CURLH_HEADER, -1, &header) != CURLHE_OK) break;
        amount = header->amount;
        if (i > 0 && strcmp(field, header->value) != 0) return false;
        if (i == 0 && !text_copy(field, header->value)) return false;
    }
    return true;
}

bool length_parse(CURL* easy, int64_t* length) {
    char text[24] = "";
    if (!field_copy(easy, "Content-Length", text)) return false;
    if (text[0] == '\0') return true;
    const size_t digits = strspn(text, "0123456789");
    // 18 digits fit.
    if (text[digits] != '\0' || digits > 18) return false;
    *length = strtoll(text, nullptr, 10);
    return true;
}

}  // namespace

HeadMessage response_head(CURL* easy) {
    HeadMessage head;
    long status = 0;
    (void)curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    head.status = static_cast<int32_t>(status);
    char date[64] = "";
    const auto check = [&](bool usable, uint32_t field) {
        if (!usable) head.unusable |= field;
    };
    check(length_parse(easy, &head.length), HEAD_LENGTH);
    check(field_copy(easy, "ETag", head.tag), HEAD_TAG);
    check(field_copy(easy, "Last-Modified", head.modified), HEAD_MODIFIED);
    check(field_copy(easy, "Date", date), HEAD_DATE);
    check(field_copy(easy, "Content-Range", head.range), HEAD_RANGE);
    check(field_copy(easy, "Content-Encoding", head.encoding), HEAD_ENCODING);
    check(field_copy(easy, "Transfer-Encoding", head.transfer), HEAD_TRANSFER);
    check(field_copy(easy, "Location", head.location), HEAD_LOCATION);
    if (head.modified[0] != '\0') head.modified_s = curl_getdate(head.modified, nullptr);
    if (date[0] != '\0') head.date_s = curl_getdate(date, nullptr);
    return head;
}
