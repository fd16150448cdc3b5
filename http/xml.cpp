// Documents come from servers and from disk and are not trusted: no DOCTYPE (and
// so no entity of theirs), no network, libxml2's limits on depth and sizes stay
// on, and its messages never reach the daemon's standard error.
#include "http/xml.h"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/file.h"

// Far above any file that the daemon writes itself.
static constexpr size_t FILE_SIZE_MAX = 16 * 1024 * 1024;

// libxml2 compares each attribute of an element with all the others, and each
// prefix with all the namespaces in force: 2 MiB of them take many minutes. These
// limits keep any document to a second and no honest one comes near them.
static constexpr int ELEMENT_ATTRIBUTES_MAX = 4096;
static constexpr int NAMESPACES_MAX = 256;

static constexpr int PARSE_OPTIONS = XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NONET;

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

// True when the text may hold more attributes or namespaces than the parser can
// deal with in reasonable time. A "<" stands in no attribute value, so that
// counting "=" from one to the next never counts too few.
static bool is_flood(std::string_view text) {
    int attributes = 0;
    for (const char c : text) {
        if (c == '<') attributes = 0;
        if (c == '=' && ++attributes > ELEMENT_ATTRIBUTES_MAX) return true;
    }
    constexpr std::string_view NAMESPACE = "xmlns";
    int namespaces = 0;
    for (size_t at = text.find(NAMESPACE); at != std::string_view::npos;
         at = text.find(NAMESPACE, at + NAMESPACE.size())) {
        if (++namespaces > NAMESPACES_MAX) return true;
    }
    return false;
}

// Messages about an encoding pass by the parser's own switches; the function that
// gets them is set for each thread.
[[gnu::format(printf, 2, 3)]] static void ignore_message(void*, const char*, ...) {}

static xmlDocPtr parse(const char* text, size_t size, const char* encoding, int options) {
    // Once, and before any thread relies on the parser's global state.
    static const bool ready = (xmlInitParser(), true);
    if (!ready || size > INT32_MAX || is_flood({text, size})) return nullptr;
    const std::unique_ptr<xmlParserCtxt, ParserFree> parser(xmlNewParserCtxt());
    if (parser == nullptr) return nullptr;
    parser->sax->internalSubset = refuse_doctype;
    xmlSetGenericErrorFunc(nullptr, ignore_message);
    return xmlCtxtReadMemory(parser.get(), text, static_cast<int>(size), nullptr, encoding,
                             PARSE_OPTIONS | options);
}

xmlDocPtr xml_doc_read_mem(const char* text) {
    if (text == nullptr) return nullptr;
    return parse(text, strlen(text), "utf8", 0);
}

xmlDocPtr xml_doc_read_file(const char* path) {
    // The file is read here, not by libxml2: its own reader would unpack compressed
    // files and report on standard error.
    FileBytes file;
    if (path == nullptr || file_read(path, 0, FILE_SIZE_MAX, &file) != 0) return nullptr;
    return parse(file.bytes.get(), file.size, nullptr, XML_PARSE_NOBLANKS);
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
