#include <fstream>
#include <memory>
#include <vector>

#include <openssl/evp.h>

#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"

namespace {

struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

const EVP_MD* DigestNamed(const std::wstring& algorithm) {
    if (zep::text::EqualsIgnoreCase(algorithm, L"SHA-256") || zep::text::EqualsIgnoreCase(algorithm, L"SHA256")) {
        return EVP_sha256();
    }
    return nullptr;
}

}  // namespace

std::wstring utility::GetFileHash(const std::wstring& path, const std::wstring& algorithm) {
    try {
        const EVP_MD* digest = DigestNamed(algorithm);
        if (digest == nullptr) return std::wstring();
        std::ifstream in(zep::path::ToFs(path), std::ios::binary);
        if (!in) return std::wstring();
        const std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
        if (!ctx || EVP_DigestInit_ex(ctx.get(), digest, nullptr) != 1) return std::wstring();

        // Package archives run to gigabytes: hash them a chunk at a time.
        std::vector<char> chunk(64 * 1024);
        while (in) {
            in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            const std::streamsize got = in.gcount();
            if (got > 0 && EVP_DigestUpdate(ctx.get(), chunk.data(), static_cast<std::size_t>(got)) != 1) {
                return std::wstring();
            }
        }
        // End of file sets failbit too; badbit alone means a read error (for
        // example a directory, which opens but cannot be read).
        if (in.bad() || !in.eof()) return std::wstring();

        unsigned char raw[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(ctx.get(), raw, &length) != 1) return std::wstring();
        static constexpr wchar_t kHex[] = L"0123456789abcdef";
        std::wstring hex;
        hex.reserve(length * 2u);
        for (unsigned int i = 0; i < length; ++i) {
            hex.push_back(kHex[raw[i] >> 4]);
            hex.push_back(kHex[raw[i] & 0x0F]);
        }
        return hex;
    } catch (...) {
        return std::wstring();
    }
}
