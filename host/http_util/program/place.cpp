// Library and program must agree on host and port, or the address that was looked up
// would serve another host. So libcurl's parser reads a URL once, here, and the library
// gets the parts.
#include "host/http_util/program/place.h"

#include <curl/curl.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/text.h"

namespace {

struct CurlFree {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
    void operator()(char* text) const { curl_free(text); }
};
using Url = std::unique_ptr<CURLU, CurlFree>;

// Servers and release lists have URLs with blanks in them.
constexpr unsigned LENIENT = CURLU_URLENCODE | CURLU_ALLOW_SPACE;

template <size_t N>
bool part_copy(const Url& url, CURLUPart part, char (&field)[N]) {
    char* text = nullptr;
    const CURLUcode code = curl_url_get(url.get(), part, &text, 0);
    const std::unique_ptr<char, CurlFree> owner(text);
    return code == CURLUE_OK && text_copy(field, text);
}

bool resource_copy(const Url& url, PlaceMessage* place) {
    char path[RESOURCE_SIZE] = "";
    char query[RESOURCE_SIZE] = "";
    char* text = nullptr;
    const bool has_query = curl_url_get(url.get(), CURLUPART_QUERY, &text, 0) == CURLUE_OK;
    const std::unique_ptr<char, CurlFree> owner(text);
    size_t length = 0;
    return part_copy(url, CURLUPART_PATH, path) && (!has_query || text_copy(query, text)) &&
           text_appendf(place->resource, sizeof(place->resource), &length, "%s?%s", path, query);
}

}  // namespace

PlaceMessage place_find(const TargetMessage& target) {
    PlaceMessage place;
    const Url url(curl_url());
    char scheme[8] = "";
    if (!url ||
        (target.base[0] != '\0' &&
         curl_url_set(url.get(), CURLUPART_URL, target.base, LENIENT) != CURLUE_OK) ||
        curl_url_set(url.get(), CURLUPART_URL, target.reference, LENIENT) != CURLUE_OK ||
        !part_copy(url, CURLUPART_SCHEME, scheme) || !part_copy(url, CURLUPART_HOST, place.host) ||
        !part_copy(url, CURLUPART_URL, place.url)) {
        return place;
    }
    place.secure = strcmp(scheme, "https") == 0 ? 1 : 0;
    place.valid = place.secure != 0 || strcmp(scheme, "http") == 0 ? 1 : 0;
    if (!resource_copy(url, &place)) place.resource[0] = '\0';
    char* port = nullptr;
    if (curl_url_get(url.get(), CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK) {
        place.port = static_cast<uint32_t>(strtoul(port, nullptr, 10));
    }
    curl_free(port);
    return place;
}
