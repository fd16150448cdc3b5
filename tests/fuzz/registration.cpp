// What an app says to the registration server: when its connection has ended, nothing of it
// is left.
#include "registry/app_registry.h"
#include "registry/reg_server.h"
#include "tests/fuzz/converse.h"

static tq_thread_master* s_loop;
static char s_path[PATH_SIZE];

static void Prepare() {
    http_client_tmp_path(REG_SOCKET_PATH, &s_path);
    s_loop = tq_thread_master_create();
    Require(reg_server_install(s_loop) == 0);
}

static void Try(std::string_view input) {
    Require(reg_app_add(-1, "alpha", "1.0", 0) == REG_OK);  // another app, which may be named
    (void)Converse(s_loop, s_path, input);
    (void)reg_app_del_by_name("alpha");
    AppSet left{};
    reg_app_all(&left);
    Require(app_set_is_empty(left));
}
