/* The smallest app: registers, takes what the update client brings, answers.
 *
 *     cc app.c $(pkg-config --cflags --libs http_update) -o app
 *     TMPDIR=/run/http_client ./app modem 1.4 /data/modem/
 */
#include <http_update_app.h>
#include <stdio.h>
#include <unistd.h>

/* 0, or this app's own number for what went wrong. */
static int install(const struct http_app_request *request) {
    for (size_t i = 0; i < request->file_count; i++) {
        if (access(request->files[i], R_OK) != 0) return 2;
        printf("installed %s\n", request->files[i]);
    }
    return HTTP_APP_SUCCESS;
}

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s NAME VERSION SAVE-PATH/\n", argv[0]);
        return 1;
    }
    const struct http_app_info info = {argv[1], argv[2], argv[3], 0};
    struct http_app *app;
    int result;

    setvbuf(stdout, NULL, _IOLBF, 0);
    while ((app = http_app_open(NULL)) == NULL) sleep(2); /* no daemon yet */
    if ((result = http_app_register(app, &info)) != 0) {
        fprintf(stderr, "%s: %s\n", info.name, http_app_result_text(result));
        return 1;
    }
    printf("%s is registered\n", info.name);
    for (;;) {
        struct http_app_request *request;
        result = http_app_wait(app, -1, &request);
        if (result < 0) { /* the daemon went away */
            sleep(2);
            (void)http_app_reconnect(app);
        } else if (result > 0) {
            result = install(request);
            http_app_answer(app, request->app, result, http_app_find_fact(request, "version"));
            http_app_request_free(request);
        }
    }
}
