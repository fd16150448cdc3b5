// A resume file found on disk: whatever was read from it and written back is read
// the same ever after.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "resume/resume_file.h"
#include "resume/resume_list.h"

static std::string s_directory;

// The list deletes the files of entries that it drops, and here the input names
// them: only the target's own files are ever deleted.
extern "C" int unlink(const char* path) noexcept {
    const bool own = strncmp(path, s_directory.c_str(), s_directory.size()) == 0;
    return own ? static_cast<int>(syscall(SYS_unlink, path)) : 0;
}

static std::string names() {
    std::string text;
    char name[RESUME_NAME_SIZE];
    for (uint32_t i = 0; resume_app_name(i, name); ++i) text = name + ("\n" + text);
    return text;
}

static std::string read_list(const std::string& path) {
    resume_clear();
    (void)read_apps(path.c_str(), resume_read_app);
    return names();
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char directory[] = "/dev/shm/fuzz-resume-XXXXXX";
    if (mkdtemp(directory) == nullptr) abort();
    s_directory = directory;
    return atexit([] { (void)rmdir(s_directory.c_str()); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = s_directory + "/file";
    std::ofstream(path).write(reinterpret_cast<const char*>(data), static_cast<long>(size));
    (void)read_list(path);
    std::string lists[3];  // reading turns the order round
    for (std::string& list : lists) {
        if (write_apps(path.c_str(), resume_write_apps) != 0) abort();
        list = read_list(path);
    }
    if (lists[0] != lists[2]) abort();
    resume_clear();
    return unlink(path.c_str());
}
