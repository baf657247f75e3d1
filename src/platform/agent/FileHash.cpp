#include <deque>
#include <mutex>
#include <string>

#include "platform/agent/CommonBase.h"
#include "platform/util/Crypto.h"
#include "platform/util/Strings.h"

namespace {

// The hashes of the last few archives written: one scan's and a few
// plug-ins' are uploaded right after they are written.
class WrittenHashes {
public:
    void Remember(const zep::platform::EntryInfo& file, const std::wstring& hex) {
        if (file.identity == 0 || hex.empty()) return;  // nothing to tell one file from another by
        std::lock_guard<std::mutex> lock(mutex_);
        if (known_.size() == kHeld) known_.pop_front();
        known_.push_back(Known{file.identity, file.size, file.modifiedNs, hex});
    }

    std::wstring Find(const zep::platform::EntryInfo& file) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const Known& known : known_) {
            if (file.identity != 0 && known.identity == file.identity && known.size == file.size &&
                known.modifiedNs == file.modifiedNs) {
                return known.hex;
            }
        }
        return std::wstring();
    }

private:
    struct Known {
        std::uint64_t identity;
        std::uint64_t size;
        std::int64_t modifiedNs;
        std::wstring hex;
    };
    static constexpr std::size_t kHeld = 8;
    std::mutex mutex_;
    std::deque<Known> known_;
};

WrittenHashes& Written() {
    static WrittenHashes hashes;
    return hashes;
}

}  // namespace

void utility::RememberFileHash(const zep::platform::EntryInfo& file, const std::wstring& sha256Hex) {
    try {
        Written().Remember(file, sha256Hex);
    } catch (...) {
        // Without it the file is read again: slower, not wrong.
    }
}

std::wstring utility::GetFileHash(const std::wstring& path, const std::wstring& algorithm) {
    try {
        if (!zep::text::EqualsIgnoreCase(algorithm, L"SHA-256") && !zep::text::EqualsIgnoreCase(algorithm, L"SHA256")) {
            return std::wstring();
        }
        const auto in = FileSystem::openFile(path);
        if (!in) return std::wstring();
        // What was opened is what the hash is for: a file changed since it
        // was written no longer matches and is read.
        if (std::wstring known = Written().Find(in->Info()); !known.empty()) return known;
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
