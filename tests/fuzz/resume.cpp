// A resume file found on disk: whatever was read from it and written back is read
// the same ever after.
#include "resume/resume_file.h"
#include "resume/resume_list.h"
#include "tests/fakes/fakes.h"
#include "tests/fuzz/fuzz.h"

static std::string s_path;

static void Prepare() { s_path = s_directory + std::string("/file"); }

static std::string Names() {
    std::string text;
    char name[RESUME_NAME_SIZE];
    for (uint32_t i = 0; resume_app_name(i, name); ++i) text = name + ("\n" + text);
    return text;
}

static std::string ReadList() {
    resume_clear();
    (void)read_apps(s_path.c_str(), resume_read_app);
    return Names();
}

static void Try(std::string_view input) {
    fakes::Reset();
    WriteFile(s_path, input);
    (void)ReadList();
    std::string lists[3];  // reading turns the order round
    for (std::string& list : lists) {
        Require(write_apps(s_path.c_str(), resume_write_apps) == 0);
        list = ReadList();
    }
    Require(lists[0] == lists[2]);
    resume_clear();
    (void)unlink(s_path.c_str());
}
