// The agent's FileSystem over the seam's folders: every path is opened from
// its trusted root down (env/Beneath.h), and the operation is done on the
// folder that holds it.
#include <memory>
#include <string>
#include <vector>

#include "platform/agent/CommonBase.h"
#include "platform/env/Beneath.h"
#include "platform/env/Env.h"
#include "platform/util/Paths.h"

using zep::platform::CurrentEnv;
using zep::platform::EntryKind;
using zep::platform::Folder;
using zep::platform::FsError;
using zep::platform::FsStatus;
using zep::platform::PathOpener;

namespace {

constexpr const char* kReadFile = "FileSystem::readFile";

// The folders the module trusts. The user's one is looked up on every call:
// users log on and off while the agent runs.
std::vector<std::wstring> TrustedRoots(const zep::platform::Env& env) {
    std::vector<std::wstring> roots;
    if (auto root = env.system->AppDataRoot()) roots.push_back(std::move(*root));
    roots.push_back(env.system->TempFolder());
    const std::wstring sid = env.system->LoggedInUserSid();
    std::wstring local;
    if (!sid.empty() &&
        env.registry->GetString(zep::platform::Hive::Users, sid + System::kShellFoldersKey, System::kLocalAppDataValue,
                                local) &&
        !local.empty()) {
        roots.push_back(std::move(local));
    }
    return roots;
}

// Runs `body` with the folder that holds `path` and the name of its last
// component.
template <typename Body>
auto WithParent(const std::wstring& path, bool create, Body&& body) {
    const auto env = CurrentEnv();
    const PathOpener opener(*env->files, TrustedRoots(*env));
    std::wstring name;
    std::unique_ptr<Folder> parent = opener.OpenParent(path, name, create);
    return body(parent.get(), name);
}

std::unique_ptr<Folder> OpenPath(const std::wstring& path, bool create) {
    const auto env = CurrentEnv();
    return PathOpener(*env->files, TrustedRoots(*env)).OpenFolder(path, create);
}

EntryKind KindOf(const std::wstring& path) {
    return WithParent(path, false, [](Folder* parent, const std::wstring& name) {
        if (parent == nullptr) return EntryKind::Other;
        const auto entry = parent->Stat(name);
        return entry ? entry->kind : EntryKind::Other;
    });
}

bool EndsWith(const std::wstring& text, const std::wstring& suffix) {
    return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool IsSeparator(wchar_t c) { return c == L'\\' || c == L'/'; }

}  // namespace

bool FileSystem::fileExists(const std::wstring& path) { return KindOf(path) == EntryKind::File; }

bool FileSystem::directoryExists(const std::wstring& path) { return OpenPath(path, false) != nullptr; }

bool FileSystem::createDirectory(const std::wstring& path, bool recursive) {
    if (recursive) return OpenPath(path, true) != nullptr;
    return WithParent(path, false, [](Folder* parent, const std::wstring& name) {
        return parent != nullptr && parent->CreateFolder(name) != nullptr;
    });
}

bool FileSystem::deleteDirectoryOrFile(const std::wstring& path, bool recursive) {
    return WithParent(path, false, [&](Folder* parent, const std::wstring& name) {
        FsStatus status;
        if (parent == nullptr) return false;
        return parent->Remove(name, recursive, &status);
    });
}

bool FileSystem::copyFile(const std::wstring& from, const std::wstring& to) {
    return WithParent(from, false, [&](Folder* source, const std::wstring& sourceName) {
        auto in = source ? source->OpenFile(sourceName) : nullptr;
        if (!in) return false;
        return WithParent(to, false, [&](Folder* target, const std::wstring& targetName) {
            return target != nullptr && zep::platform::CopyInto(*in, *target, targetName);
        });
    });
}

bool FileSystem::copyDir(const std::wstring& from, const std::wstring& to) {
    auto source = OpenPath(from, false);
    auto target = source ? OpenPath(to, true) : nullptr;
    return target != nullptr && zep::platform::CopyTree(*source, *target);
}

bool FileSystem::GetDiskFreeSpaceExW(const std::wstring& path, std::uint64_t& freeBytes) {
    const auto available = CurrentEnv()->files->FreeSpace(path);
    if (!available) return false;
    freeBytes = *available;
    return true;
}

std::uint64_t FileSystem::fileSize(const std::wstring& path) {
    return WithParent(path, false, [](Folder* parent, const std::wstring& name) -> std::uint64_t {
        const auto entry = parent ? parent->Stat(name) : std::nullopt;
        return entry && entry->kind == EntryKind::File ? entry->size : 0;
    });
}

bool FileSystem::readFile(const std::wstring& path, std::string& contents, std::uint64_t limit) {
    return WithParent(path, false, [&](Folder* parent, const std::wstring& name) {
        auto in = parent ? parent->OpenFile(name) : nullptr;
        FsStatus status;
        if (in && zep::platform::ReadAll(*in, limit, contents, &status)) return true;
        if (status.error == FsError::TooLarge) {
            g_log.e(L"%s: %s is larger than %llu bytes; not read", kReadFile, path, limit);
        }
        contents.clear();
        return false;
    });
}

bool FileSystem::readFileTail(const std::wstring& path, std::uint64_t maxBytes, std::string& contents) {
    return WithParent(path, false, [&](Folder* parent, const std::wstring& name) {
        auto in = parent ? parent->OpenFile(name) : nullptr;
        return in && zep::platform::ReadTail(*in, maxBytes, contents);
    });
}

bool FileSystem::writeFile(const std::wstring& path, const std::string& contents) {
    return WithParent(path, false, [&](Folder* parent, const std::wstring& name) {
        auto out = parent ? parent->OpenForWriting(name, Folder::Create::Truncate) : nullptr;
        if (!out) return false;
        const bool written = out->Write(contents);
        return out->Close() && written;
    });
}

bool FileSystem::writeFileAtomically(const std::wstring& path, const std::string& contents) {
    return WithParent(path, false, [&](Folder* parent, const std::wstring& name) {
        return parent != nullptr && zep::platform::WriteAtomically(*parent, name, contents);
    });
}

std::wstring FileSystem::getFileName(const std::wstring& path) {
    for (std::size_t i = path.size(); i > 0; --i) {
        if (IsSeparator(path[i - 1])) return path.substr(i);
    }
    return path;
}

std::wstring FileSystem::getDirectoryName(const std::wstring& path) {
    for (std::size_t i = path.size(); i > 0; --i) {
        if (IsSeparator(path[i - 1])) return path.substr(0, i - 1);
    }
    return std::wstring();
}

std::wstring FileSystem::GetTempFolderPath() { return CurrentEnv()->system->TempFolder(); }

std::wstring FileSystem::GetExtendedAbsolutePathW(const std::wstring& path) {
    return zep::path::ExtendedAbsolute(path);
}

bool FileSystem::FindFileInDirectoryTree(const std::wstring& folder, const std::wstring& extension,
                                         std::wstring& found) {
    std::vector<std::wstring> files;
    GetFileListForFolder(folder, extension, files);
    if (files.empty()) return false;
    found = std::move(files.front());
    return true;
}

int FileSystem::GetFileListForFolder(const std::wstring& folder, const std::wstring& filter,
                                     std::vector<std::wstring>& files) {
    auto root = OpenPath(folder, false);
    if (!root) return 0;
    int count = 0;
    zep::platform::VisitFiles(*root, true, [&](const std::wstring& relative, const zep::platform::EntryInfo&) {
        if (!filter.empty() && !EndsWith(relative, filter)) return;
        files.push_back(zep::platform::JoinPath(folder, relative));
        ++count;
    });
    return count;
}

bool FileSystem::folderHoldsFiles(const std::wstring& folder) {
    const auto root = OpenPath(folder, false);
    return root && zep::platform::HoldsAnyFile(*root);
}

std::unique_ptr<Folder> FileSystem::openFolder(const std::wstring& path, bool create) {
    return OpenPath(path, create);
}

std::unique_ptr<zep::platform::InputFile> FileSystem::openFile(const std::wstring& path) {
    return WithParent(path, false, [](Folder* parent, const std::wstring& name) {
        return parent ? parent->OpenFile(name) : nullptr;
    });
}
