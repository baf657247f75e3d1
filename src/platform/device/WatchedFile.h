// A value built from one file of a folder and rebuilt when the file changes.
// The file is examined on every Get (cheap next to what callers do with the
// value) and read through the folder, with a size limit: a hand-edited or
// hostile file that is too large, a link or a FIFO reads as no file.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/env/Beneath.h"
#include "platform/env/FileSystemEnv.h"

namespace zep::platform {

template <typename T>
class WatchedFile {
public:
    // `build` gets the file's bytes, or null when there is no readable file.
    using Builder = std::function<std::shared_ptr<T>(const std::string* bytes)>;

    WatchedFile(std::shared_ptr<Folder> folder, std::wstring name, std::uint64_t limit, Builder build)
        : folder_(std::move(folder)), name_(std::move(name)), limit_(limit), build_(std::move(build)) {}

    std::shared_ptr<T> Get() {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::optional<EntryInfo> current = folder_ ? folder_->Stat(name_) : std::nullopt;
        if (value_ && Same(stamp_, current)) return value_;

        std::string bytes;
        std::unique_ptr<InputFile> file =
            current && current->kind == EntryKind::File ? folder_->OpenFile(name_) : nullptr;
        const bool read = file && ReadAll(*file, limit_, bytes);
        value_ = build_(read ? &bytes : nullptr);
        // The stamp of exactly what was read; an unreadable file is tried
        // again on the next call.
        if (read) {
            stamp_ = file->Info();
        } else {
            stamp_ = current ? std::optional<EntryInfo>(kUnreadable) : std::nullopt;
        }
        return value_;
    }

private:
    static inline const EntryInfo kUnreadable{L"", EntryKind::Other, ~std::uint64_t{0}, -1, ~std::uint64_t{0}};

    static bool Same(const std::optional<EntryInfo>& a, const std::optional<EntryInfo>& b) {
        if (!a || !b) return !a && !b;
        return a->kind == b->kind && a->size == b->size && a->modifiedNs == b->modifiedNs &&
               a->identity == b->identity;
    }

    const std::shared_ptr<Folder> folder_;
    const std::wstring name_;
    const std::uint64_t limit_;
    const Builder build_;
    std::mutex mutex_;
    std::optional<EntryInfo> stamp_;
    std::shared_ptr<T> value_;
};

}  // namespace zep::platform
