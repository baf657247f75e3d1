#include <string>

#include "platform/agent/CommonBase.h"
#include "platform/util/Crypto.h"
#include "platform/util/Strings.h"

std::wstring utility::GetFileHash(const std::wstring& path, const std::wstring& algorithm) {
    try {
        if (!zep::text::EqualsIgnoreCase(algorithm, L"SHA-256") && !zep::text::EqualsIgnoreCase(algorithm, L"SHA256")) {
            return std::wstring();
        }
        const auto in = FileSystem::openFile(path);
        if (!in) return std::wstring();
        // Archives run to gigabytes: hashed a chunk at a time.
        zep::crypto::Sha256 hash;
        std::string chunk(256 * 1024, '\0');
        for (;;) {
            std::size_t got = 0;
            if (!in->Read(chunk.data(), chunk.size(), got)) return std::wstring();
            if (got == 0) break;
            hash.Update(std::string_view(chunk.data(), got));
        }
        return zep::text::FromUtf8(hash.FinalHex());
    } catch (...) {
        return std::wstring();
    }
}
