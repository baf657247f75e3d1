#include "support/HookedFiles.h"

namespace zep::testing {

using platform::FsStatus;

class HookedFiles::HookedFolder : public platform::FolderWrapper {
public:
    HookedFolder(std::unique_ptr<platform::Folder> folder, HookedFiles& files)
        : FolderWrapper(std::move(folder)), files_(files) {}

    static std::unique_ptr<platform::Folder> Wrap(std::unique_ptr<platform::Folder> folder, HookedFiles& files) {
        return folder ? std::make_unique<HookedFolder>(std::move(folder), files) : nullptr;
    }
    std::unique_ptr<platform::Folder> OpenFolder(std::wstring_view name, FsStatus* status) override {
        return Wrap(target().OpenFolder(name, status), files_);
    }
    std::unique_ptr<platform::Folder> CreateFolder(std::wstring_view name, FsStatus* status) override {
        return Wrap(target().CreateFolder(name, status), files_);
    }
    Input OpenFile(std::wstring_view name, FsStatus* status) override {
        if (files_.beforeOpen) files_.beforeOpen(std::wstring(name));
        Input file = target().OpenFile(name, status);
        return file && files_.input ? files_.input(std::wstring(name), std::move(file)) : std::move(file);
    }
    Output OpenForWriting(std::wstring_view name, Create mode, FsStatus* status) override {
        Output file = target().OpenForWriting(name, mode, status);
        return file && files_.output ? files_.output(std::wstring(name), std::move(file)) : std::move(file);
    }

private:
    HookedFiles& files_;
};

std::unique_ptr<platform::Folder> HookedFiles::OpenFolder(const std::wstring& path, FsStatus* status) {
    return HookedFolder::Wrap(FileSystemEnvWrapper::OpenFolder(path, status), *this);
}

}  // namespace zep::testing
