// A private directory for one test, removed with everything in it at the end.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

class TempDir {
  public:
    TempDir() {
        char name[] = "/tmp/hc-XXXXXX";  // short: socket paths lie below it
        EXPECT_NE(mkdtemp(name), nullptr);
        path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

    // Writes a file, whose missing directories are made.
    void Write(std::string_view name, std::string_view content) const {
        const std::filesystem::path file = *this / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }
    std::string Read(std::string_view name) const {
        std::ostringstream text;
        text << std::ifstream(*this / name, std::ios::binary).rdbuf();
        return text.str();
    }

  private:
    std::string path_;
};
