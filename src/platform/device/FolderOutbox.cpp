#include "platform/device/FolderOutbox.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "platform/agent/CommonBase.h"
#include "platform/env/Beneath.h"
#include "platform/util/CivilTime.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

constexpr int kLocalRefusal = 1;
constexpr std::uint64_t kMaxResultsFileBytes = 64 * 1024;
// Where an upload is written before it is renamed to its number.
constexpr const wchar_t* kAside = L".incoming";

std::string IsoUtc(std::chrono::system_clock::time_point time) {
    return DateTimeUtility::convertGMTTimeToString(civil::ToGmt(time));
}

// One line in one write on a file opened for appending, so that lines of
// concurrent writers never interleave.
bool AppendLine(Folder& folder, std::wstring_view name, const std::string& line) {
    auto out = folder.OpenForWriting(name, Folder::Create::Append);
    if (!out) return false;
    const bool written = out->Write(line + "\n");
    return out->Close() && written;
}

bool WriteNew(Folder& folder, std::wstring_view name, std::string_view bytes) {
    auto out = folder.OpenForWriting(name, Folder::Create::New);
    if (!out) return false;
    const bool written = out->Write(bytes) && out->Sync();
    return out->Close() && written;
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

class FolderStorage : public StorageEnv {
public:
    FolderStorage(std::shared_ptr<FileSystemEnv> files, std::shared_ptr<Folder> device, std::shared_ptr<ClockEnv> clock)
        : files_(std::move(files)), device_(std::move(device)), clock_(std::move(clock)) {}

    int UploadDiagResult(const std::string& filePathUtf8, bool unregisteredDevice, const std::string& metadata,
                         const std::string& provisionToken) override {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::wstring path = text::DecodeFileName(filePathUtf8);
        const std::wstring name = FileSystem::getFileName(path);
        // Another process uploading from the same device waits.
        const auto held = device_->Lock(L".outbox.lock", true);
        auto outbox = held ? device_->CreateFolder(L"outbox") : nullptr;
        if (!outbox) return kLocalRefusal;

        // A file that cannot be read is refused before the service is asked,
        // so it takes no forced result.
        auto parent = PathOpener(*files_, {}).OpenFolder(FileSystem::getDirectoryName(path), false);
        auto source = parent && IsEntryName(name) ? parent->OpenFile(name) : nullptr;
        if (!source) return Failed(*outbox, name, kLocalRefusal);
        const int forced = NextForcedResult();
        if (forced != 0) return Failed(*outbox, name, forced);

        // What a writer killed half-way left aside; under the lock nobody is
        // writing it now.
        outbox->Remove(kAside, true);
        const std::uint64_t size = source->Info().size;
        bool written = false;
        {
            // Closed before it is renamed: a folder held open cannot be
            // renamed on Windows.
            const auto aside = outbox->CreateFolder(kAside);
            written = aside && CopyInto(*source, *aside, name) &&
                      WriteNew(*aside, name + L".metadata.json", metadata) &&
                      WriteNew(*aside, L"upload.json", Record(name, size, unregisteredDevice, !provisionToken.empty()));
        }
        if (!written || !Publish(*outbox)) {
            outbox->Remove(kAside, true);
            return Failed(*outbox, name, kLocalRefusal);
        }
        return 0;
    }

private:
    int Failed(Folder& outbox, const std::wstring& name, int code) {
        // The line is best effort: the answer is what the module acts on.
        AppendLine(outbox, L"failed.log",
                   IsoUtc(clock_->SystemNow()) + "," + text::ToUtf8(name) + "," + std::to_string(code));
        return code;
    }

    // Takes the first line of upload-results; the rest is written back, or the
    // file removed once nothing is left. Blank lines are skipped; a line that
    // is no number is taken as a local refusal, so a typo cannot pass for a
    // success.
    int NextForcedResult() {
        std::string text;
        if (!ReadFileIn(*device_, L"upload-results", kMaxResultsFileBytes, text)) return 0;
        constexpr const char* kBlank = " \t\r\n";
        std::size_t begin = 0;
        std::string line;
        while (begin < text.size() && line.empty()) {
            std::size_t end = text.find('\n', begin);
            if (end == std::string::npos) end = text.size();
            line = text.substr(begin, end - begin);
            begin = end + 1;
            const std::size_t first = line.find_first_not_of(kBlank);
            line = first == std::string::npos ? std::string()
                                               : line.substr(first, line.find_last_not_of(kBlank) + 1 - first);
        }
        const std::string rest = begin < text.size() ? text.substr(begin) : std::string();
        if (rest.find_first_not_of(kBlank) == std::string::npos) {
            device_->Remove(L"upload-results", false);
        } else {
            WriteAtomically(*device_, L"upload-results", rest);
        }
        if (line.empty()) return 0;
        try {
            std::size_t used = 0;
            const int code = std::stoi(line, &used);
            return used == line.size() ? code : kLocalRefusal;
        } catch (...) {
            return kLocalRefusal;
        }
    }

    // Renames the folder written aside to the number after the highest one;
    // a number taken meanwhile moves on to the next.
    bool Publish(Folder& outbox) {
        std::vector<EntryInfo> entries;
        if (!outbox.List(entries)) return false;
        unsigned long highest = 0;
        for (const auto& entry : entries) {
            if (entry.name.empty() || entry.name.size() > 9 ||
                entry.name.find_first_not_of(L"0123456789") != std::wstring::npos) {
                continue;
            }
            highest = std::max(highest, std::stoul(entry.name));
        }
        for (unsigned long number = highest + 1, tries = 0; tries < 1000; ++number, ++tries) {
            std::wstring name = std::to_wstring(number);
            if (name.size() < 4) name.insert(0, 4 - name.size(), L'0');
            FsStatus status;
            if (outbox.Rename(kAside, name, false, &status)) {
                outbox.Sync();
                return true;
            }
            if (status.error != FsError::Exists) return false;
        }
        return false;
    }

    // What the service was given, except the token itself.
    std::string Record(const std::wstring& name, std::uint64_t size, bool unregisteredDevice, bool tokenUsed) {
        Json::Value record(Json::objectValue);
        record["file"] = text::ToUtf8(name);
        record["sizeInBytes"] = Json::Value(static_cast<Json::UInt64>(size));
        record["unregisteredDevice"] = unregisteredDevice;
        record["provisionTokenUsed"] = tokenUsed;
        record["time"] = IsoUtc(clock_->SystemNow());
        Json::StreamWriterBuilder builder;
        builder["emitUTF8"] = true;
        return Json::writeString(builder, record) + "\n";
    }

    const std::shared_ptr<FileSystemEnv> files_;
    const std::shared_ptr<Folder> device_;
    const std::shared_ptr<ClockEnv> clock_;
    std::mutex mutex_;
};

class FolderEvents : public EventEnv {
public:
    FolderEvents(std::shared_ptr<Folder> device, std::shared_ptr<ClockEnv> clock)
        : device_(std::move(device)), clock_(std::move(clock)) {}

    void Log(int eventId, const std::wstring& text) override {
        Json::Value event(Json::objectValue);
        event["time"] = IsoUtc(clock_->SystemNow());
        event["eventId"] = eventId;
        event["text"] = text::ToUtf8(text);
        AppendLine(*device_, L"events.log", CompactJson(event));  // fire and forget
    }

private:
    const std::shared_ptr<Folder> device_;
    const std::shared_ptr<ClockEnv> clock_;
};

}  // namespace

std::shared_ptr<StorageEnv> MakeFolderStorage(std::shared_ptr<FileSystemEnv> files, std::shared_ptr<Folder> deviceFolder,
                                              std::shared_ptr<ClockEnv> clock) {
    return std::make_shared<FolderStorage>(std::move(files), std::move(deviceFolder), std::move(clock));
}

std::shared_ptr<EventEnv> MakeFolderEvents(std::shared_ptr<Folder> deviceFolder, std::shared_ptr<ClockEnv> clock) {
    return std::make_shared<FolderEvents>(std::move(deviceFolder), std::move(clock));
}

}  // namespace zep::platform
