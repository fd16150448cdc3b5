// Files that others may have had their hands on, and replacements that fail.
#include "base/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "tests/support/temp_dir.h"

TEST(File, OpensOnlyWhatIsDemanded) {
    const TempDir dir;
    for (const char* name : {"plain", "shared", "twice", "foreign"}) dir.Write(name, "x");
    std::filesystem::create_directory(dir / "directory");
    std::filesystem::create_symlink("plain", dir / "link");
    std::filesystem::create_hard_link(dir / "twice", dir / "second");
    ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(chmod((dir / "shared").c_str(), 0620), 0);
    ASSERT_EQ(chmod((dir / "plain").c_str(), 0644), 0);
    const int other =
        chown((dir / "foreign").c_str(), 65534, 65534) == 0 ? EPERM : 0;  // by root only
    constexpr unsigned all = FILE_NO_LINK | FILE_OURS | FILE_OURS_TO_CHANGE | FILE_ONE_NAME;
    const struct {
        const char* name;
        unsigned demands;
        int error;
    } rows[] = {
        {"plain", all, 0},
        {"link", all & ~FILE_NO_LINK, 0},
        {"link", FILE_NO_LINK, ELOOP},
        {"twice", all & ~FILE_ONE_NAME, 0},
        {"twice", FILE_ONE_NAME, EMLINK},
        {"shared", all & ~FILE_OURS_TO_CHANGE, 0},
        {"shared", FILE_OURS_TO_CHANGE, EPERM},
        {"foreign", FILE_NO_LINK, 0},
        {"foreign", FILE_OURS, other},
        {"pipe", 0, EINVAL},
        {"directory", 0, EINVAL},
        {"missing", 0, ENOENT},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        UniqueFd fd;
        EXPECT_EQ(file_open((dir / row.name).c_str(), O_RDONLY, row.demands, &fd), row.error);
        EXPECT_EQ(fd.valid(), row.error == 0);
    }
}

TEST(File, ReplacementIsWholeOrTheOldFileStays) {
    const TempDir dir;
    const std::string path = dir / "file";
    dir.Write("file", "old");
    std::filesystem::create_hard_link(path, dir / "witness");
    dir.Write("victim", "precious");
    std::filesystem::create_symlink("victim", path + ".new");
    EXPECT_EQ(file_replace(path.c_str(), "new", 0640), 0);
    EXPECT_EQ(dir.Read("file"), "new");
    EXPECT_EQ(dir.Read("witness"), "old") << "never written in place";
    EXPECT_EQ(dir.Read("victim"), "precious");
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);

    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
    EXPECT_EQ(file_replace((dir / "none/file").c_str(), "new", 0640), ENOENT);
}

TEST(File, WritesAllWhereADescriptorTakesLittle) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    UniqueFd reader(ends[0]);
    const UniqueFd writer(ends[1]);
    std::atomic<size_t> total = 0;
    std::thread reading([&] {
        char buffer[4096];
        for (ssize_t count = 0; total < 1'000'000;
             count = read(reader.get(), buffer, sizeof(buffer)))
            if (count > 0) total += static_cast<size_t>(count);
    });
    EXPECT_EQ(file_write_all(writer.get(), std::string(1'000'000, 'x')), 0);
    reading.join();
    reader.reset();
    (void)signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(file_write_all(writer.get(), "x"), EPIPE);
}
