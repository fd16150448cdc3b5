// The daemon's code on the fakes, its prefixes and its device's files in a private
// directory.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "frame/log.h"
#include "frame/paths.h"
#include "tests/fakes/fakes.h"
#include "tests/support/temp_dir.h"

#define EXPECT_HAS(text, part) EXPECT_PRED2(Has, text, part)
inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class DaemonTest : public testing::Test {
  protected:
    static constexpr char kDump[] = "oam/http_client/.http_reg_server_dump";

    DaemonTest() {
        fakes::Reset();
        DebugMask = DEBUG_ALL;
        setenv("HTTP_CLIENT_DEVICE_ROOT", dir_.path().c_str(), 1);
        UsePrefixes(dir_.path(), dir_.path());
        std::filesystem::create_directories(dir_ / WORKING_DIR);
        (void)fakes::Syslog();
    }
    static void UsePrefixes(const std::string& tmp, const std::string& data) {
        setenv("TMPDIR", tmp.c_str(), 1);
        setenv("DATA_VEMO_DIR", data.c_str(), 1);
        http_client_get_env_dir();
    }
    static void ExpectLog(const std::string& text) { EXPECT_HAS(fakes::Syslog(), text); }
    void ExpectDump(const std::string& text) const { EXPECT_HAS(dir_.Read(kDump), text); }
    // Those of the names that exist in the directory, without their folders.
    std::string OnDisk(const std::vector<std::string>& names) const {
        std::string text;
        for (const std::string& name : names)
            if (std::filesystem::exists(dir_ / name)) text += name.substr(name.rfind('/') + 1);
        return text;
    }

    TempDir dir_;
};
