// Device texts and CPU rules, read from files below a private root.
#include "frame/platform/tqsys.h"

#include <gtest/gtest.h>

#include <memory>

#include "frame/platform/cpurule.h"
#include "tests/support/temp_dir.h"

namespace {

struct DeviceRoot : TempDir {
    DeviceRoot() { setenv("HTTP_CLIENT_DEVICE_ROOT", path().c_str(), 1); }
};

// The five texts in the order of the header.
std::string all_texts() {
    std::string texts;
    for (const auto get : {tqsys_get_os_name, tqsys_get_project, tqsys_get_release_type,
                           tqsys_get_release, tqsys_get_hw_version}) {
        const std::unique_ptr<char, decltype(&free)> text(get(), free);
        texts += text == nullptr ? "-|" : std::string(text.get()) + "|";
    }
    return texts;
}

TEST(Tqsys, TakesDescriptionThenOsReleaseThenFirmware) {
    const DeviceRoot root;
    EXPECT_EQ(all_texts(), "-|-|-|-|-|");

    root.Write("proc/device-tree/model", std::string_view("Board Rev 1\0", 12));
    root.Write("proc/device-tree/compatible", std::string_view("maker,board\0maker,soc\0", 22));
    root.Write("etc/os-release",
               "# NAME=no\nNAME=\"Some Linux\"\nVERSION_ID=12\nVERSION_CODENAME=bookworm\n");
    EXPECT_EQ(all_texts(), "Some Linux|Board Rev 1|bookworm|12|maker,board|");

    root.Write("sys/class/dmi/id/product_name", "Router 9\n");
    root.Write("sys/class/dmi/id/product_version", "To be filled by O.E.M.\n");
    root.Write("sys/class/dmi/id/board_version", "B.2  \n");
    EXPECT_EQ(all_texts(), "Some Linux|Router 9|bookworm|12|B.2|");

    root.Write("etc/http_client/device.conf",
               "#os_name=no\n os_name = OS%s_\r\nproject=P1\nproject_x=no\nrelease_type=\n"
               "release=1.0=b\nhw_version=\"V 2\"");
    EXPECT_EQ(all_texts(), "OS%s_|P1|bookworm|1.0=b|V 2|");
}

TEST(CpuRule, BindsOnlyByAWholeRule) {
    const DeviceRoot root;
    CpuAffinityRequest request{};
    request.process = "http_client";
    EXPECT_NE(get_cores_affinity(&request), 0) << "no file";
    for (const auto& [rules, expected] :
         {std::pair("http_client 0-1,3\n", "0 1 3 "),
          {"# http_client 7\nother 1\n  http_client\t1023,0\r\nhttp_client 5", "0 1023 "},
          {"http_clients 1\n", ""},
          {"http_client 3-1\n", ""},
          {"http_client 0,\n", ""},
          {"http_client 1024\n", ""},
          {"http_client 99999999999999999999\n", ""}}) {
        SCOPED_TRACE(rules);
        root.Write("etc/http_client/cpu.rule", rules);
        request.cpus = {};
        const int result = get_cores_affinity(&request);
        std::string cpus;
        for (size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &request.cpus)) cpus += std::to_string(cpu) + " ";
        }
        EXPECT_EQ(cpus, expected);
        EXPECT_EQ(result == 0, !cpus.empty());
    }
}

}  // namespace
