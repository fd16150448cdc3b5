// The daemon's prefixes in a private directory, its platform faked.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "frame/log.h"
#include "frame/paths.h"
#include "tests/fakes/fakes.h"
#include "tests/support/temp_dir.h"

class FrameTest : public testing::Test {
  protected:
    static constexpr char kDump[] = "oam/http_client/.http_reg_server_dump";

    FrameTest() {
        fakes::Reset();
        DebugMask = 0;
        UsePrefixes(dir_.path(), dir_ / "data");
        http_client_vsd_make_dir();
    }
    static void UsePrefixes(const std::string& tmp, const std::string& data) {
        setenv("TMPDIR", tmp.c_str(), 1);
        setenv("DATA_VEMO_DIR", data.c_str(), 1);
        http_client_get_env_dir();
    }
    void ExpectDump(const std::string& text) const {
        EXPECT_NE(dir_.Read(kDump).find(text), std::string::npos) << text;
    }

    TempDir dir_;
};
