// A resume list over a private data directory, with small verbs.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "frame/log.h"
#include "frame/text.h"
#include "resume/resume_file.h"
#include "resume/resume_list.h"
#include "resume/resume_timer.h"
#include "tests/fakes/fakes.h"
#include "tests/support/temp_dir.h"

class ResumeTest : public testing::Test {
  protected:
    using Names = std::vector<std::string>;

    void SetUp() override {
        fakes::Reset();
        DebugMask = DEBUG_ALL;
        ASSERT_EQ(setenv("TMPDIR", dir_.path().c_str(), 1), 0);
        ASSERT_EQ(setenv("DATA_VEMO_DIR", dir_.path().c_str(), 1), 0);
        http_client_get_env_dir();
        Restart();
        (void)fakes::Syslog();
    }
    void TearDown() override {
        resume_clear();
        DebugMask = 0;
    }

    static void Restart() { resume_init(); }
    std::string File() const { return dir_.Read(RESUME_FILE); }

    // Calls f with the array of the paths that the names have in the directory.
    template <typename F>
    auto WithPaths(const Names& names, F f) {
        FilenameArray array = filename_malloc(static_cast<int32_t>(names.size()));
        const auto count = static_cast<int32_t>(names.size());
        for (int32_t i = 0; i < count; i++)
            memcpy(array[i], (dir_ / names[static_cast<size_t>(i)]).c_str(),
                   dir_.path().size() + names[static_cast<size_t>(i)].size() + 2);
        const auto owned = std::unique_ptr<char*, std::function<void(char**)>>(
            array, [count](char** paths) { filename_free(paths, count); });
        return f(array, count);
    }
    int Add(const char* app, const Names& names, int32_t n, bool incremental = false) {
        return WithPaths(names, [&](FilenameArray array, int32_t count) {
            return resume_add(app, array, count, n, incremental);
        });
    }

    // "app(count) name=state ...; app ..." in list order.
    std::string Listed() {
        MutexLock guard(resume_lock);
        std::string text;
        for (ResumeApp* app = resume_next_app(&ResumeList); app; app = resume_next_app(app)) {
            text += (text.empty() ? "" : "; ") + std::string(app->name);
            text += "(" + std::to_string(app->count) + ")";
            for (ResumeFile* file = resume_next_file(app, &app->files); file;
                 file = resume_next_file(app, file))
                text += " " + Relative(file->path) + "=" + std::to_string(file->state);
        }
        return text;
    }
    std::string Relative(const std::string& path) const {
        return path.starts_with(dir_ / "") ? path.substr(dir_.path().size() + 1) : path;
    }
    void Touch(const Names& names) {
        for (const std::string& name : names) dir_.Write(name, "x");
    }
    std::string OnDisk(const Names& names) {
        std::string text;
        for (const std::string& name : names)
            if (std::filesystem::exists(dir_ / name)) text += name;
        return text;
    }

    TempDir dir_;
};

#define EXPECT_HAS(text, part) EXPECT_NE((text).find(part), std::string::npos) << (text)
