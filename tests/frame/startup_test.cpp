// Start-up steps, directories, identity.
#include "frame/roof/startup.h"

#include <sys/stat.h>

#include <new>
#include <thread>

#include "frame/identity.h"
#include "frame/memory_reserve.h"
#include "tests/support/daemon_test.h"

class Startup : public DaemonTest {
  protected:
    Startup() { http_client_vsd_make_dir(); }
};

#define EXPECT_EXIT_CODE(step, code) EXPECT_EXIT(step, testing::ExitedWithCode(code), "")

TEST_F(Startup, LockThroughASymlinkFails) {
    dir_.Write("victim", "untouched");
    std::filesystem::create_symlink(dir_ / "victim", dir_ / "oam/http_client/http_client.running");
    EXPECT_EXIT_CODE(http_client_is_continue(), 1);
    EXPECT_EQ(dir_.Read("victim"), "untouched");
    ExpectDump("[http_client_is_continue ");
}

TEST_F(Startup, MemoryShortageTakesTheReserveThenEndsWithALine) {
    memory_reserve_init();
    std::get_new_handler()();
    EXPECT_EQ(std::get_new_handler(), nullptr) << "there is nothing left to give";
    // On a thread, for the test framework would catch it.
    EXPECT_EXIT(std::thread(std::__throw_bad_alloc).join(), testing::ExitedWithCode(1),
                "out of memory");
    ExpectDump("out of memory: the process ends");
    memory_reserve_refill();
    EXPECT_NE(std::get_new_handler(), nullptr);
    (void)std::set_new_handler(nullptr);
}

TEST_F(Startup, PrefixesAreCutAndJoined) {
    char path[PATH_SIZE];
    unsetenv("TMPDIR");
    unsetenv("DATA_VEMO_DIR");
    http_client_get_env_dir();
    http_client_tmp_path("/x", &path);
    EXPECT_STREQ(path, "/tmp/x");
    http_client_data_path("/x", &path);
    EXPECT_STREQ(path, "/data/.vemo/x");
    UsePrefixes(std::string(40, 't'), "/d");
    http_client_tmp_path(("/" + std::string(200, 'x')).c_str(), &path);
    EXPECT_EQ(path, std::string(31, 't') + "/" + std::string(95, 'x'));
}

TEST_F(Startup, MakePathCreatesParentsWithinLimits) {
    const std::string deep = dir_ / "a/b/c/";
    EXPECT_EQ(http_client_make_path(deep.c_str()), 0);
    struct stat status {};
    ASSERT_EQ(stat(deep.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0777u);
    dir_.Write("file", "");
    EXPECT_EQ(http_client_make_path((dir_ / "file/below").c_str()), -1);
    EXPECT_EQ(http_client_path_check("/1/2/3/4/5/6/7/8/9"), 0);
    EXPECT_EQ(http_client_path_check(("/" + std::string(126, 'x')).c_str()), 0);
    EXPECT_EQ(http_client_path_check("/1/2/3/4/5/6/7/8/9/1"), -1);
    EXPECT_EQ(http_client_path_check(("/" + std::string(127, 'x')).c_str()), -1);
}

TEST_F(Startup, IdentityTakesFilesAsTheyStand) {
    dir_.Write("proc/setmac/SerialNO", "S12\n");
    dir_.Write("proc/setmac/projectid", std::string(40, 'p'));
    dir_.Write("proc/macaddr", " 00:11:22:33:44:55\nrest");
    const std::string conf = "os_name=OS_\nproject=P\nrelease=1.0\nhw_version=V2\n";
    dir_.Write("etc/http_client/device.conf", conf);
    http_client_get_device_info();
    const DeviceIdentity identity = device_identity_copy();
    EXPECT_STREQ(identity.serial_number, "S12\n");
    EXPECT_EQ(identity.product_name, std::string(31, 'p'));
    EXPECT_STREQ(identity.mac_address, "00:11:22:33:44:55");
    EXPECT_STREQ(identity.hardware_version, "V2");
    EXPECT_STREQ(identity.software_version, "") << "a part is missing";

    dir_.Write("etc/http_client/device.conf", conf + "release_type=%s\n");
    http_client_get_sw_version();
    EXPECT_STREQ(device_identity_copy().software_version, "OS_P %s(1.0)");
    dir_.Write("proc/macaddr", " \n");
    http_client_get_mac();
    EXPECT_STREQ(device_identity_copy().mac_address, "00:11:22:33:44:55");
    ExpectDump("get mac failed. content:  ?.");
}
