// Archive header layout: POSIX.1-1988 ustar.
#include "tar_gz.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "base/text.h"
#include "base/unique_fd.h"

namespace {

constexpr size_t BLOCK = 512;
constexpr char ZEROES[2 * BLOCK] = {};

struct UstarHeader {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char mtime[12];
    char checksum[8];
    char typeflag;
    char linkname[100];
    char magic[6];
    char version[2];
    char uname[32];
    char gname[32];
    char devmajor[8];
    char devminor[8];
    char prefix[155];
    char padding[12];
};
static_assert(sizeof(UstarHeader) == BLOCK);

// Digits and the terminator fill the field.
template <size_t N>
void octal(char (&field)[N], unsigned long value) {
    for (size_t i = N - 1; i-- > 0; value /= 8) field[i] = static_cast<char>('0' + value % 8);
    field[N - 1] = '\0';
}

void write_bytes(TarGz* tar, const void* bytes, size_t size) {
    // A failure sticks to the stream and shows when it is closed.
    if (size > 0) (void)gzfwrite(bytes, 1, size, tar->file);
}

bool sync_and_rename(const TarGz& tar) {
    return fsync(tar.fd) == 0 && rename(tar.temporary.c_str(), tar.path.c_str()) == 0;
}

}  // namespace

bool tar_gz_create(TarGz* tar, const std::string& path) {
    tar->path = path;
    tar->temporary = path + ".XXXXXX";
    UniqueFd fd(mkostemp(tar->temporary.data(), O_CLOEXEC));  // mode 0600
    if (!fd.valid()) return false;
    UniqueFd second(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
    tar->file = second.valid() ? gzdopen(second.get(), "wb") : nullptr;
    if (tar->file == nullptr) {
        (void)unlink(tar->temporary.c_str());
        errno = ENOMEM;
        return false;
    }
    (void)second.release();  // gzclose closes it
    tar->fd = fd.release();
    return true;
}

void tar_gz_add(TarGz* tar, std::string_view name, std::string_view content, long mtime_s) {
    UstarHeader header{};
    (void)text_copy(header.name, name);
    octal(header.mode, 0600);
    octal(header.uid, 0);
    octal(header.gid, 0);
    octal(header.size, content.size());
    octal(header.mtime, static_cast<unsigned long>(mtime_s > 0 ? mtime_s : 0));
    header.typeflag = '0';
    memcpy(header.magic, "ustar", sizeof(header.magic));
    memset(header.version, '0', sizeof(header.version));
    memset(header.checksum, ' ', sizeof(header.checksum));
    unsigned long sum = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&header);
    for (size_t i = 0; i < sizeof(header); ++i) sum += bytes[i];
    char digits[7];
    octal(digits, sum);
    memcpy(header.checksum, digits, sizeof(digits));  // a blank stays at the end

    write_bytes(tar, &header, sizeof(header));
    write_bytes(tar, content.data(), content.size());
    write_bytes(tar, ZEROES, (BLOCK - content.size() % BLOCK) % BLOCK);
}

bool tar_gz_finish(TarGz* tar) {
    write_bytes(tar, ZEROES, sizeof(ZEROES));
    int stream_error = Z_OK;
    (void)gzerror(tar->file, &stream_error);  // a failed write in the middle
    int saved = errno;
    const bool whole = gzclose(tar->file) == Z_OK && stream_error == Z_OK;
    if (whole) saved = 0;
    const bool done = whole && sync_and_rename(*tar);
    if (!done) {
        if (saved == 0) saved = errno;
        (void)unlink(tar->temporary.c_str());
    }
    (void)close(tar->fd);  // synced already
    *tar = TarGz{};
    errno = saved;
    return done;
}
