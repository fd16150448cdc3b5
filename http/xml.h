// The few XML operations over libxml2 that every reader of the daemon uses.
// Texts are zero-terminated byte strings.
// Threads: any; a document belongs to one thread at a time.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <memory>

// Parses a text, whose UTF-8 byte order mark is skipped. None when it is not
// well-formed; when it has a DOCTYPE (an entity declared there could grow a small reply
// to gigabytes); when its encoding is no superset of ASCII; or when it has more than
// 4096 attributes on an element or 256 namespaces in force at a place. The caller frees
// the document with xml_doc_free.
[[nodiscard]] xmlDocPtr xml_doc_read_mem(const char* text);

// The same from a file, blank text nodes left out. Only a regular file counts that is
// ours, not writable by others and not behind a link.
[[nodiscard]] xmlDocPtr xml_doc_read_file(const char* path);

void xml_doc_free(xmlDocPtr document);

struct XmlDocFree {
    void operator()(xmlDocPtr document) const { xml_doc_free(document); }
};
using XmlDoc = std::unique_ptr<xmlDoc, XmlDocFree>;

// The same, saying why there is none: EBADMSG for what is no such document, else what
// file_read (base/file.h) says.
[[nodiscard]] int xml_doc_load(const char* path, XmlDoc* document);

// A document without elements, to be filled on this thread.
[[nodiscard]] XmlDoc xml_doc_new();

// Owns a text that libxml2 handed out.
struct XmlTextFree {
    void operator()(xmlChar* text) const { xmlFree(text); }
};
using XmlText = std::unique_ptr<xmlChar, XmlTextFree>;

// The root element when it is "filelist"; else none.
[[nodiscard]] xmlNodePtr xml_root_get(xmlDocPtr document);

// Whether the node's name is that name.
[[nodiscard]] bool xml_node_is(const xmlNode* node, const char* name);

// The node's content, or its "name" attribute, zero-filled and cut to the
// buffer.
void xml_node_content_get(xmlNodePtr node, char* buffer, size_t size);
void xml_node_name_get(xmlNodePtr node, char* buffer, size_t size);

// Content of the parent's first child element of that name; empty when there is
// none.
void xml_child_content_get(xmlNodePtr parent, const char* name, char* buffer, size_t size);

// First child of that name whose "name" attribute (255 characters of it) equals
// value; else none.
[[nodiscard]] xmlNodePtr xml_child_find_by_name(xmlNodePtr parent, const char* name,
                                                const char* value);

// position counts the visited children from 1. A negative result ends the walk.
using XmlVisitor = int (*)(xmlNodePtr child, int position, void* argument);

// Visits the parent's children of that name (every child, of any kind, when name
// is null) in document order.
void xml_child_foreach(xmlNodePtr parent, const char* name, void* argument, XmlVisitor visitor);

// libxml2's strings are unsigned char; these are the only conversions.
[[nodiscard]] inline const xmlChar* xml_text(const char* text) {
    return reinterpret_cast<const xmlChar*>(text);
}
[[nodiscard]] inline const char* xml_text(const xmlChar* text) {
    return reinterpret_cast<const char*>(text);
}

// Strips white space (space, \t, \n, \v, \f, \r) from both ends, in place.
void str_trim(char* text);
