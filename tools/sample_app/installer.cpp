// Stands in for a real installation: it reads every byte, so that a test that compares
// the digest knows that the whole file had arrived when the app was told.
#include "tools/sample_app/installer.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "base/unique_fd.h"

namespace {

struct DigestFree {
    void operator()(EVP_MD_CTX* digest) const { EVP_MD_CTX_free(digest); }
};

std::string hex_text(const unsigned char* bytes, unsigned int count) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < count; ++i) {
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 15];
    }
    return text;
}

}  // namespace

int file_install(const char* path, InstalledFile* out) {
    const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return errno;
    const std::unique_ptr<EVP_MD_CTX, DigestFree> digest(EVP_MD_CTX_new());
    if (!digest || EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) != 1) return ENOMEM;

    uint64_t size_bytes = 0;
    unsigned char block[65536];
    for (;;) {
        const ssize_t got = read(fd.get(), block, sizeof(block));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        if (got == 0) break;
        size_bytes += static_cast<uint64_t>(got);
        if (EVP_DigestUpdate(digest.get(), block, static_cast<size_t>(got)) != 1) return ENOMEM;
    }
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(digest.get(), sum, &length) != 1) return ENOMEM;
    *out = {size_bytes, hex_text(sum, length)};
    return 0;
}
