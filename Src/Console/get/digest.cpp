#include "Console/get/digest.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <memory>
#include <vector>

#include "Console/base/utf8.h"

namespace {

constexpr std::size_t kDigits = 64;
constexpr std::size_t kBlock = 256 * 1024;

}  // namespace

bool IsDigest(std::string_view text) {
    return text.size() == kDigits && std::all_of(text.begin(), text.end(), [](unsigned char c) {
               return std::isxdigit(c) != 0;
           });
}

std::string FileDigest(int file) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    errno = ENOMEM;
    if (context == nullptr || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        return "";
    }
    std::vector<unsigned char> block(kBlock);
    for (off_t position = 0;;) {
        const ssize_t count = pread(file, block.data(), block.size(), position);
        if (count == -1 && errno == EINTR) continue;
        if (count == -1) return "";
        if (count == 0) break;
        EVP_DigestUpdate(context.get(), block.data(), static_cast<std::size_t>(count));
        position += count;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    return utf8::Hex({reinterpret_cast<const char*>(digest), length});
}

std::string TextDigest(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
    return utf8::Hex({reinterpret_cast<const char*>(digest), length});
}

bool SameDigest(std::string_view one, std::string_view other) {
    return std::equal(
        one.begin(), one.end(), other.begin(), other.end(),
        [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}
