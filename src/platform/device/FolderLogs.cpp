#include "platform/device/FolderLogs.h"

#include <cstdint>
#include <string>
#include <utility>

#include "platform/env/Beneath.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

constexpr std::uint64_t kLogRotationBytes = 5u * 1024u * 1024u;

class RotatingFileSink : public LogSink {
public:
    RotatingFileSink(std::unique_ptr<Folder> folder, std::wstring name, int maxFiles)
        : folder_(std::move(folder)), name_(std::move(name)), maxFiles_(maxFiles < 1 ? 1 : maxFiles) {}

    bool Open() {
        out_ = folder_->OpenForWriting(name_, Folder::Create::Append);
        const auto entry = folder_->Stat(name_);
        size_ = entry ? entry->size : 0;
        return out_ != nullptr;
    }

    void Write(std::string_view line) override {
        if (size_ > 0 && size_ + line.size() > kLogRotationBytes) Rotate();
        // A full disk loses log lines, never the scan.
        if (out_ && out_->Write(line)) size_ += line.size();
    }

private:
    std::wstring Numbered(int n) const { return name_ + L"." + std::to_wstring(n); }

    void Rotate() {
        if (out_) out_->Close();
        out_.reset();
        if (maxFiles_ == 1) {
            folder_->Remove(name_, false);
        } else {
            folder_->Remove(Numbered(maxFiles_ - 1), false);
            for (int n = maxFiles_ - 2; n >= 1; --n) folder_->Rename(Numbered(n), Numbered(n + 1), true);
            folder_->Rename(name_, Numbered(1), true);
        }
        Open();  // when it fails, lines are dropped until the next sink
    }

    std::unique_ptr<Folder> folder_;
    const std::wstring name_;
    const int maxFiles_;
    std::unique_ptr<OutputFile> out_;
    std::uint64_t size_ = 0;
};

class FolderLogs : public LogEnv {
public:
    FolderLogs(std::shared_ptr<FileSystemEnv> files, std::wstring folder)
        : files_(std::move(files)), folder_(std::move(folder)) {}

    std::shared_ptr<LogSink> OpenLog(const std::string& fileName, int maxFiles) override {
        // One plain file name: the log folder is the only place logs go.
        const std::wstring name = text::DecodeFileName(fileName);
        if (!IsEntryName(name)) return nullptr;
        auto folder = PathOpener(*files_, {}).OpenFolder(folder_, true);
        if (!folder) return nullptr;
        auto sink = std::make_shared<RotatingFileSink>(std::move(folder), name, maxFiles);
        if (!sink->Open()) return nullptr;
        return sink;
    }

private:
    const std::shared_ptr<FileSystemEnv> files_;
    const std::wstring folder_;
};

}  // namespace

std::shared_ptr<LogEnv> MakeFolderLogs(std::shared_ptr<FileSystemEnv> files, std::wstring logFolder) {
    return std::make_shared<FolderLogs>(std::move(files), std::move(logFolder));
}

}  // namespace zep::platform
