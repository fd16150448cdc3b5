// Device texts and CPU rules, read from files below a private root.
#include "frame/platform/tqsys.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <memory>

#include "frame/platform/cpurule.h"
#include "frame/unique_fd.h"
#include "tests/support/temp_dir.h"

namespace {

struct DeviceRoot : TempDir {
    DeviceRoot() { setenv("HTTP_CLIENT_DEVICE_ROOT", path().c_str(), 1); }
    ~DeviceRoot() { unsetenv("HTTP_CLIENT_DEVICE_ROOT"); }
};

std::string text_of(char* text) {
    const std::unique_ptr<char, decltype(&free)> owned(text, free);
    return text == nullptr ? "(null)" : text;
}

// The five texts in the order of the header.
std::string all_texts() {
    return text_of(tqsys_get_os_name()) + "|" + text_of(tqsys_get_project()) + "|" +
           text_of(tqsys_get_release_type()) + "|" + text_of(tqsys_get_release()) + "|" +
           text_of(tqsys_get_hw_version());
}

TEST(Tqsys, TakesDescriptionThenOsReleaseThenFirmware) {
    const DeviceRoot root;
    EXPECT_EQ(all_texts(), "(null)|(null)|(null)|(null)|(null)");

    root.Write("usr/lib/os-release", "ID=plain\nBUILD_ID='rolling'\n");
    EXPECT_EQ(all_texts(), "plain|plain|release|rolling|(null)");

    root.Write("proc/device-tree/model", std::string_view("Board Rev 1\0", 12));
    root.Write("proc/device-tree/compatible", std::string_view("maker,board\0maker,soc\0", 22));
    root.Write("etc/os-release",
               "# NAME=no\nNAME=\"Some Linux\"\nVERSION_ID=12\nVERSION_CODENAME=bookworm\n");
    EXPECT_EQ(all_texts(), "Some Linux|Board Rev 1|bookworm|12|maker,board");

    root.Write("sys/class/dmi/id/product_name", "Router 9\n");
    root.Write("sys/class/dmi/id/product_version", "To be filled by O.E.M.\n");
    root.Write("sys/class/dmi/id/board_version", "B.2  \n");
    EXPECT_EQ(all_texts(), "Some Linux|Router 9|bookworm|12|B.2");

    root.Write("etc/http_client/device.conf",
               "#os_name=no\n os_name = OS%s_\r\nproject=P1\nproject_x=no\nrelease_type=\n"
               "release=1.0=b\nhw_version=\"V 2\"");
    EXPECT_EQ(all_texts(), "OS%s_|P1|bookworm|1.0=b|V 2");
}

TEST(Tqsys, DeviceFilesLieBelowTheRoot) {
    const DeviceRoot root;
    EXPECT_EQ(tqsys_open_device_file("/proc/macaddr"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(tqsys_open_device_file(("/" + std::string(5000, 'x')).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    root.Write("proc/macaddr", "0011.2233.4455\n");
    const UniqueFd fd(tqsys_open_device_file("/proc/macaddr"));
    char buffer[32] = "";
    EXPECT_EQ(read(fd.get(), buffer, sizeof buffer), 15);
}

TEST(CpuRule, BindsOnlyByAWholeRule) {
    const struct {
        const char* rules;
        const char* cpus;  // "" for no rule
    } rows[] = {
        {"http_client 0-1,3\n", "0 1 3 "},
        {"# http_client 7\nother 1\n  http_client\t1023,0\r\nhttp_client 5", "0 1023 "},
        {"http_client 2", "2 "},
        {"http_clients 1\n", ""},
        {"http_client\n", ""},
        {"http_client 3-1\n", ""},
        {"http_client 0,\n", ""},
        {"http_client 0-\n", ""},
        {"http_client -1\n", ""},
        {"http_client 1024\n", ""},
        {"http_client 0 1\n", ""},
        {"http_client 0x1\n", ""},
        {"http_client 99999999999999999999\n", ""},
    };
    const DeviceRoot root;
    CpuAffinityRequest request{};
    request.process = "http_client";
    EXPECT_NE(get_cores_affinity(&request), 0) << "no file";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rules);
        root.Write("etc/http_client/cpu.rule", row.rules);
        request.cpus = {};
        const int result = get_cores_affinity(&request);
        std::string cpus;
        for (size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &request.cpus)) cpus += std::to_string(cpu) + " ";
        }
        EXPECT_EQ(cpus, row.cpus);
        EXPECT_EQ(result == 0, !cpus.empty());
    }
}

}  // namespace
