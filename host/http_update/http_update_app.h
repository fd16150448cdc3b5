/* App SDK of the update client (libhttp_update.so): what a business module needs
 * to register with the update daemon on its device, to be told about downloaded
 * files, and to say what became of them. C and C++.
 *
 *     struct http_app *app = http_app_open(NULL);
 *     struct http_app_info info = {"modem", "1.4", "/data/modem/", 0};
 *     if (app == NULL || http_app_register(app, &info) != 0) ...
 *     for (;;) {
 *         struct http_app_request *request;
 *         int result = http_app_wait(app, -1, &request);
 *         if (result < 0) {
 *             sleep(2);
 *             (void)http_app_reconnect(app);
 *         } else if (result > 0) {
 *             http_app_answer(app, request->app, HTTP_APP_UPDATING, NULL);
 *             int failed = install(request->files, request->file_count);
 *             http_app_answer(app, request->app, failed, http_app_find_fact(request, "version"));
 *             http_app_request_free(request);
 *         }
 *     }
 *
 * Results: 0 or more as each call says; positive results of a registration are
 * the daemon's answers below; a negative one is an errno value with its sign
 * changed. http_app_result_text() has words for all of them. The ones to act on:
 *   -EINVAL, -ENAMETOOLONG  an argument is missing or too long; nothing was sent
 *   -ETIMEDOUT              the daemon does not answer or does not read
 *   -EBADMSG                a packet made no sense; it was dropped, go on
 *   any other               the connection is gone: http_app_reconnect()
 *
 * The library never changes how the process treats signals, starts no thread and
 * prints nothing. Its descriptor is closed on exec.
 * Threads: a handle's register, reconnect and wait calls belong to one thread at
 * a time; the others may come from any thread while one waits. */
#ifndef HTTP_UPDATE_APP_H
#define HTTP_UPDATE_APP_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Longest texts, without the closing zero. */
#define HTTP_APP_NAME_MAX 31
#define HTTP_APP_VERSION_MAX 31
#define HTTP_APP_SAVE_PATH_MAX 127

/* Flags of a registration. */
#define HTTP_APP_ONE_FILE 0x1u    /* only the first listed file is downloaded */
#define HTTP_APP_MANUAL 0x2u      /* left out of the daily automatic update */
#define HTTP_APP_INCREMENTAL 0x4u /* told of the files that came, even if not all came */

/* Answers of the daemon to a registration. */
#define HTTP_APP_REGISTERED 0
#define HTTP_APP_NO_MEMORY 2
#define HTTP_APP_TABLE_FULL 10 /* no place left, or the save path was not stored */
#define HTTP_APP_NAME_TAKEN 12 /* another connection has registered the name */

/* Results of an update; any other value is a failure of the app's own choice. */
#define HTTP_APP_SUCCESS 0
#define HTTP_APP_UPDATING 1

struct http_app; /* one connection to the daemon, for one app or several */

struct http_app_info {
    const char* name;      /* unique on the device */
    const char* version;   /* the one that runs now; NULL or "": unknown */
    const char* save_path; /* directory for the files, ending in '/': the daemon puts
                              nothing between it and a file's name. NULL or "": the
                              update server says where */
    uint32_t flags;
};

/* Something the update server says about the app, such as "version" and "2.0". */
struct http_app_fact {
    const char* name;
    const char* text;
};

/* Files of a newer version, downloaded whole. They are the app's from now on. */
struct http_app_request {
    const char* app;          /* which of the connection's apps is meant */
    const char* const* files; /* full paths */
    size_t file_count;
    const struct http_app_fact* facts; /* in the server's order */
    size_t fact_count;
};

/* Connects. socket_path NULL: $TMPDIR (or /tmp) + "/oam/http_client/.http_update".
 * NULL with errno set on failure, in general because no daemon runs: try again
 * after a second or two. http_app_close() ends it, and its registrations with it. */
struct http_app* http_app_open(const char* socket_path);
void http_app_close(struct http_app* app);

/* Registers an app and waits up to 10 seconds for the answer. The texts are copied.
 * 0, one of the daemon's answers, or negative. A registered app's name may be
 * registered again on the same connection: only its save path changes then. */
int http_app_register(struct http_app* app, const struct http_app_info* info);

/* The daemon forgets its apps when it restarts. Connects again and registers every
 * app of the handle anew, with the version, mode and save path that it has by now.
 * 0, or the first result that was not 0; then nothing is lost and the call may be
 * repeated, best after a second or two. Requests not yet waited for are dropped:
 * the daemon asks again. */
int http_app_reconnect(struct http_app* app);

/* Waits for an update request: timeout_ms -1 for ever, 0 not at all.
 * 1: *request is set, to be released with http_app_request_free(); 0: none came
 * in time (or a signal came); negative: see above. */
int http_app_wait(struct http_app* app, int timeout_ms, struct http_app_request** request);
void http_app_request_free(struct http_app_request* request);

/* The text of a fact, or NULL when the server did not give it. */
const char* http_app_find_fact(const struct http_app_request* request, const char* name);

/* For a poll loop of the app's own: when the descriptor is readable, and after each
 * registration, call http_app_wait(app, 0, ...) until it returns 0. The descriptor
 * changes with http_app_reconnect(); -1 while there is no connection. */
int http_app_fd(const struct http_app* app);

/* Answers a request. HTTP_APP_UPDATING: the app goes on working and will answer once
 * more; HTTP_APP_SUCCESS: version (or NULL) is the app's version from now on; any
 * other result: the update failed. Until the last answer the daemon asks no server
 * for this app. 0 or negative, like the following calls. */
int http_app_answer(struct http_app* app, const char* name, int32_t result, const char* version);

int http_app_set_version(struct http_app* app, const char* name, const char* version);
int http_app_set_manual(struct http_app* app, const char* name, int manual);
int http_app_set_save_path(struct http_app* app, const char* name, const char* save_path);

/* Takes the app off the daemon's table. After the last app of a connection the daemon
 * closes it; http_app_close() is what is left to do. */
int http_app_deregister(struct http_app* app, const char* name);

/* Words for a result of any call above. Never NULL. */
const char* http_app_result_text(int result);

#ifdef __cplusplus
}
#endif

#endif
