// The resume file: the resume list as an XML document that outlives the daemon.
//
//   <filelist><app name="APP"><filecnt>2</filecnt>
//     <file name="PATH"/><file name="PATH"/></app> ...</filelist>
//
// States are not stored: after a restart an app's first file counts as failed
// and the others as not fetched.
// Threads: resume_init before other threads start; resume_read_again, resume_settle and
// resume_write on any thread, one at a time; the others work on their arguments and the
// list.
#pragma once

#include <libxml/tree.h>

#include "frame/paths.h"

constexpr char RESUME_FILE[] = "/oam/http_client/http_recode.txt";  // below the data prefix

// Full path; set by resume_init.
extern char resume_file_path[PATH_SIZE];

// Start-up: full retry budget, and the list as the file has it, last app first. A
// file that is missing or damaged costs what can't be read. One that is there but could
// not be read (memory, descriptors, the disk), after some tries, is left alone: the list
// is empty, nothing is saved over the file, and it is read later.
void resume_init();

// Reads such a file. True when it was one, and is read now. For a timer; any thread.
bool resume_read_again();

// Before a run, which will change the list: reads such a file for the last time. One that
// the disk does not give back is kept for people, beside itself as ".unread", which the
// dump file tells. False when memory or descriptors are short: there must be no run then.
[[nodiscard]] bool resume_settle();

// Brings the file up to date if the list has changed. A crash leaves the old or
// the new file. After a failure (logged) the old one is gone, the list counts as
// changed still, and of a list that finds no room the file holds what fits.
void resume_write();

// Whether the file says what the list says.
[[nodiscard]] bool resume_is_saved();

// Calls function for each "app" element of the file, whatever it returns. -1
// when the file can't be read or is something else.
using ReadAppFn = int (*)(xmlNodePtr app);
int read_apps(const char* path, ReadAppFn function);

// Writes a document whose root the function fills (negative: give up, the old
// file stays). -1 when no new file was written.
using WriteAppsFn = int (*)(xmlNodePtr root);
[[nodiscard]] int write_apps(const char* path, WriteAppsFn function);

// The functions of the resume list: enters one app; fills the root element. An
// entry that no XML document can carry (control bytes, not UTF-8) stays in
// memory only, so that it can't spoil the file for the others.
int resume_read_app(xmlNodePtr app);
[[nodiscard]] int resume_write_apps(xmlNodePtr root);

// Appends a child element with a text and a "name" attribute, each unless null.
// Null on failure; the parent is then as it was.
xmlNodePtr xml_new_child(xmlNodePtr parent, const char* name, const char* text,
                         const char* attribute);
