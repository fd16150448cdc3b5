// A resume list over a private data directory, with small verbs.
#pragma once

#include "resume/resume_file.h"
#include "resume/resume_list.h"
#include "resume/resume_timer.h"
#include "tests/support/daemon_test.h"

using Names = std::vector<std::string>;

// A file-name array of paths below a directory.
struct Paths {
    Paths(const std::string& directory, Names names) : texts(std::move(names)) {
        for (std::string& text : texts) {
            text = directory + "/" + text;
            text.resize(FILENAME_SIZE);
            array.push_back(text.data());
        }
    }
    int32_t count() const { return static_cast<int32_t>(array.size()); }
    Names texts;
    std::vector<char*> array;
};

// "app(count) name=state ...; app ..." in list order, names without directory.
inline std::string ResumeListed() {
    MutexLock guard(resume_lock);
    std::string text;
    for (ResumeApp* app = resume_next_app(&ResumeList); app; app = resume_next_app(app)) {
        text += (text.empty() ? "" : "; ") + std::string(app->name);
        text += "(" + std::to_string(app->count) + ")";
        for (ResumeFile* file = resume_next_file(app, &app->files); file;
             file = resume_next_file(app, file)) {
            const std::string name = std::filesystem::path(file->path).filename();
            text += " " + name + "=" + std::to_string(file->state);
        }
    }
    return text;
}

class ResumeTest : public DaemonTest {
  protected:
    ResumeTest() {
        resume_init();
        (void)fakes::Syslog();
    }

    int Add(const char* app, const Names& names, int32_t n, bool incremental = false) {
        Paths paths(dir_.path(), names);
        return resume_add(app, paths.array.data(), paths.count(), n, incremental);
    }
    void Touch(const Names& names) {
        for (const std::string& name : names) dir_.Write(name, "x");
    }
};
