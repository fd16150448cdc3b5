// Documents come from servers and from disk and are not trusted: no DOCTYPE (and
// so no entity of theirs), no network, libxml2's limits on depth and sizes stay
// on, and its messages never reach the daemon's standard error.
#include "http/xml.h"

#include <libxml/SAX2.h>
#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/threads.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "base/file.h"

// Far above any file that the daemon writes itself.
static constexpr size_t FILE_SIZE_MAX = 16 * 1024 * 1024;

// libxml2 compares each attribute of an element with all the others, and each
// prefix with all the namespaces in force: 2 MiB of them take many minutes. These
// limits keep any document to a second and no honest one comes near them.
static constexpr int ELEMENT_ATTRIBUTES_MAX = 4096;
static constexpr int NAMESPACES_MAX = 256;

// What a declaration may call its encoding, beginnings of names in lower case. In
// each of them a byte below 0x40 is the ASCII character, whatever stands before it,
// so that counting bytes counts what the parser will see. In others (EBCDIC, UTF-7,
// UTF-16, ISO-2022) it could hide there.
static constexpr std::string_view ENCODINGS[] = {
    "utf-8",   "utf8", "us-ascii",    "ascii", "iso-8859-", "gbk",      "gb2312",
    "gb18030", "big5", "windows-125", "euc-",  "koi8-",     "shift_jis"};
static constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";

static constexpr int PARSE_OPTIONS = XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NONET;

// Without memory libxml2 takes half a document for a whole one, loses texts, or ends by a
// signal. So what it can't have, C++ is asked for, which finds room or ends the process
// with a line (frame/memory_reserve.h).
static void* xml_realloc(void* old, size_t size) {
    for (;;) {
        void* memory = realloc(old, size);
        if (memory != nullptr || size == 0) return memory;
        operator delete(operator new(size));
    }
}

static void* xml_malloc(size_t size) { return xml_realloc(nullptr, size); }

static char* xml_strdup(const char* text) {
    const size_t size = strlen(text) + 1;
    return static_cast<char*>(memcpy(xml_malloc(size), text, size));
}

// Before main, and so before libxml2 has anything. It fails for null only.
[[maybe_unused]] static const int s_memory_setup =
    xmlMemSetup(free, xml_malloc, xml_realloc, xml_strdup);

// Every thread but the first has a state in libxml2, which it makes where it is first
// needed, not with the functions above, and does not look whether it is there.
static void make_ready() {
    // Once, and before any thread relies on the parser's global state.
    [[maybe_unused]] static const bool is_ready = (xmlInitParser(), true);
    while (xmlIsMainThread() == 0 && xmlGetGlobalState() == nullptr) {
        operator delete(operator new(sizeof(xmlGlobalState)));
    }
}

namespace {
struct ParserFree {
    void operator()(xmlParserCtxtPtr parser) const { xmlFreeParserCtxt(parser); }
};
}  // namespace

// Runs when the parser meets a DOCTYPE. Stopping there, and not after the parse,
// also spares the default attributes that it may declare: copied into every
// element, they grow a small text as far as entities do.
static void refuse_doctype(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    auto* parser = static_cast<xmlParserCtxtPtr>(context);
    parser->wellFormed = 0;  // a stop alone would still hand out what was parsed so far
    xmlStopParser(parser);
}

// Runs at every start tag, once the parser has read it whole: the namespaces in force
// are those of the element and of all around it.
static void count_namespaces(void* context, const xmlChar* name, const xmlChar* prefix,
                             const xmlChar* uri, int namespace_count, const xmlChar** namespaces,
                             int attribute_count, int defaulted, const xmlChar** attributes) {
    auto* parser = static_cast<xmlParserCtxtPtr>(context);
    if (parser->nsNr / 2 > NAMESPACES_MAX) {  // a prefix and its address each
        parser->wellFormed = 0;
        return xmlStopParser(parser);
    }
    xmlSAX2StartElementNs(context, name, prefix, uri, namespace_count, namespaces, attribute_count,
                          defaulted, attributes);
}

// True when an element of the text may hold more attributes than the parser can deal
// with in reasonable time. A "<" stands in no attribute value, so that counting "="
// from one to the next never counts too few.
static bool is_flood(std::string_view text) {
    int attributes = 0;
    for (const char c : text) {
        if (c == '<') attributes = 0;
        if (c == '=' && ++attributes > ELEMENT_ATTRIBUTES_MAX) return true;
    }
    return false;
}

// The encoding that an XML declaration at the front of the text names; empty: none.
static std::string_view declared_encoding(std::string_view text) {
    constexpr std::string_view NAME = "encoding";
    if (!text.starts_with("<?xml")) return {};
    text = text.substr(0, text.find("?>"));
    const size_t at = text.find(NAME);
    if (at == std::string_view::npos) return {};
    const size_t open = text.find_first_of("\"'", at + NAME.size());
    if (open == std::string_view::npos) return {};
    return text.substr(open + 1, text.find(text[open], open + 1) - open - 1);
}

// Whether the parser will see the characters that stand there as bytes. It guesses
// from the first bytes, too, and knows what no declaration names: so the first must
// be a plain "<", and none zero.
static bool is_plain_text(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || text[first] != '<') return false;
    if (text.find('\0') != std::string_view::npos) return false;
    const std::string_view encoding = declared_encoding(text);
    return encoding.empty() ||
           std::any_of(std::begin(ENCODINGS), std::end(ENCODINGS), [&](std::string_view known) {
               return encoding.size() >= known.size() &&
                      strncasecmp(encoding.data(), known.data(), known.size()) == 0;
           });
}

// Messages about an encoding pass by the parser's own switches; the function that
// gets them is set for each thread.
[[gnu::format(printf, 2, 3)]] static void ignore_message(void*, const char*, ...) {}

// 0 or EBADMSG.
static int parse(std::string_view text, const char* encoding, int options, XmlDoc* document) {
    if (text.starts_with(BYTE_ORDER_MARK)) text.remove_prefix(BYTE_ORDER_MARK.size());
    if (text.size() > INT32_MAX || !is_plain_text(text) || is_flood(text)) return EBADMSG;
    make_ready();
    const std::unique_ptr<xmlParserCtxt, ParserFree> parser(xmlNewParserCtxt());
    parser->sax->internalSubset = refuse_doctype;
    parser->sax->startElementNs = count_namespaces;
    xmlSetGenericErrorFunc(nullptr, ignore_message);
    XmlDoc parsed(xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()),
                                    nullptr, encoding, PARSE_OPTIONS | options));
    if (parsed == nullptr) return EBADMSG;
    *document = std::move(parsed);
    return 0;
}

xmlDocPtr xml_doc_read_mem(const char* text) {
    XmlDoc document;
    if (text == nullptr || parse(text, "utf8", 0, &document) != 0) return nullptr;
    return document.release();
}

int xml_doc_load(const char* path, XmlDoc* document) {
    // The file is read here, not by libxml2: its own reader would unpack compressed
    // files and report on standard error.
    // Others may write to its directory; what they put there is nobody's list.
    constexpr unsigned demands = FILE_NO_LINK | FILE_OURS | FILE_OURS_TO_CHANGE;
    FileBytes file;
    const int error = file_read(path, demands, FILE_SIZE_MAX, &file);
    return error != 0 ? error : parse(file.View(), nullptr, XML_PARSE_NOBLANKS, document);
}

xmlDocPtr xml_doc_read_file(const char* path) {
    XmlDoc document;
    if (path == nullptr || xml_doc_load(path, &document) != 0) return nullptr;
    return document.release();
}

XmlDoc xml_doc_new() {
    make_ready();
    return XmlDoc(xmlNewDoc(xml_text("1.0")));
}

void xml_doc_free(xmlDocPtr document) {
    if (document != nullptr) xmlFreeDoc(document);
}

xmlNodePtr xml_root_get(xmlDocPtr document) {
    if (document == nullptr) return nullptr;
    xmlNodePtr root = xmlDocGetRootElement(document);
    return root != nullptr && xml_node_is(root, "filelist") ? root : nullptr;
}

bool xml_node_is(const xmlNode* node, const char* name) {
    return xmlStrcmp(node->name, xml_text(name)) == 0;
}

// Takes the text over; it may be null.
static void fill(xmlChar* text, char* buffer, size_t size) {
    const XmlText owned(text);
    memset(buffer, 0, size);
    if (text == nullptr) return;
    const std::string_view content(xml_text(text));
    memcpy(buffer, content.data(), std::min(content.size(), size - 1));
}

void xml_node_content_get(xmlNodePtr node, char* buffer, size_t size) {
    if (node == nullptr || buffer == nullptr || size < 1) return;
    fill(xmlNodeGetContent(node), buffer, size);
}

void xml_node_name_get(xmlNodePtr node, char* buffer, size_t size) {
    if (node == nullptr || buffer == nullptr || size < 1) return;
    fill(xmlGetProp(node, xml_text("name")), buffer, size);
}

void xml_child_content_get(xmlNodePtr parent, const char* name, char* buffer, size_t size) {
    if (parent == nullptr || name == nullptr || buffer == nullptr || size < 1) return;
    memset(buffer, 0, size);
    for (xmlNodePtr child = parent->children; child != nullptr; child = child->next) {
        if (!xml_node_is(child, name)) continue;
        xml_node_content_get(child, buffer, size);
        return;
    }
}

xmlNodePtr xml_child_find_by_name(xmlNodePtr parent, const char* name, const char* value) {
    if (parent == nullptr || name == nullptr || value == nullptr) return nullptr;
    for (xmlNodePtr child = parent->children; child != nullptr; child = child->next) {
        if (!xml_node_is(child, name)) continue;
        char found[256];
        xml_node_name_get(child, found, sizeof(found));
        if (strcmp(found, value) == 0) return child;
    }
    return nullptr;
}

void xml_child_foreach(xmlNodePtr parent, const char* name, void* argument, XmlVisitor visitor) {
    if (parent == nullptr || visitor == nullptr) return;
    int position = 0;
    xmlNodePtr next = nullptr;
    for (xmlNodePtr child = parent->children; child != nullptr; child = next) {
        next = child->next;  // the visitor may unlink its child
        if (name != nullptr && !xml_node_is(child, name)) continue;
        if (visitor(child, ++position, argument) < 0) return;
    }
}

void str_trim(char* text) {
    if (text == nullptr) return;
    constexpr std::string_view WHITE = " \t\n\v\f\r";
    const std::string_view whole(text);
    const size_t first = whole.find_first_not_of(WHITE);
    if (first == std::string_view::npos) {
        text[0] = '\0';
        return;
    }
    const size_t length = whole.find_last_not_of(WHITE) + 1 - first;
    memmove(text, text + first, length);
    text[length] = '\0';
}
