#include "platform/env/Beneath.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <utility>

#include "platform/util/Paths.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

// Deeper trees are not walked: each level holds an open folder, and a tree
// someone nested a million folders deep must not exhaust the descriptors.
constexpr int kMaxDepth = 128;
constexpr std::size_t kChunkBytes = 256 * 1024;

bool IsSeparator(wchar_t c) {
#ifdef _WIN32
    return c == L'\\' || c == L'/';
#else
    return c == L'/';
#endif
}

bool SameName(std::wstring_view a, std::wstring_view b) {
#ifdef _WIN32
    return text::EqualsIgnoreCase(a, b);
#else
    return a == b;
#endif
}

void Fail(FsStatus* status, FsError error, std::string message = std::string()) {
    if (status != nullptr) *status = FsStatus{error, std::move(message)};
}

// A path as components, with whether it is absolute (rooted at "/", a drive
// or a share), so that "a/b" is never taken for "/a/b".
struct Split {
    bool absolute = false;
    std::vector<std::wstring> names;
};

Split SplitPath(std::wstring_view path) {
#ifdef _WIN32
    if (path.substr(0, 4) == L"\\\\?\\") path.remove_prefix(4);
    if (path.substr(0, 4) == L"UNC\\") path.remove_prefix(3);  // keeps one separator: "\server\share"
#endif
    Split split;
    split.absolute = !path.empty() && IsSeparator(path.front());
#ifdef _WIN32
    split.absolute = split.absolute || (path.size() >= 2 && path[1] == L':');
#endif
    split.names = PathComponents(path);
    return split;
}

// Everything before the last component; the path itself when it has none.
std::wstring ParentPath(const std::wstring& path) {
    std::size_t end = path.size();
    while (end > 0 && IsSeparator(path[end - 1])) --end;
    while (end > 0 && !IsSeparator(path[end - 1])) --end;
    const std::size_t cut = end;
    while (end > 0 && IsSeparator(path[end - 1])) --end;
    if (end == 0) return cut > 0 ? path.substr(0, 1) : path;  // "/" stays "/"
#ifdef _WIN32
    if (end == 2 && path[1] == L':') return path.substr(0, 3);  // "C:\"
#endif
    return path.substr(0, end);
}

std::unique_ptr<Folder> Walk(std::unique_ptr<Folder> folder, const std::vector<std::wstring>& names,
                             std::size_t count, bool create, FsStatus* status) {
    for (std::size_t i = 0; folder && i < count; ++i) {
        if (!IsEntryName(names[i])) {
            Fail(status, FsError::Invalid);
            return nullptr;
        }
        folder = create ? folder->CreateFolder(names[i], status) : folder->OpenFolder(names[i], status);
    }
    return folder;
}

// Depth-first over a tree of open folders, entries in name order. Only the
// folders on the current path are open, at most kMaxDepth of them. Each
// folder carries a context of the caller's (for a copy: where it goes);
// `onFolder` makes a child's context or declines to descend (nullopt). Both
// are handed the entry's names below `top`, its own name last. Without
// `details` the entries carry their names and kinds only. The walk ends
// early once `*stop` is set.
template <typename Context, typename OnFolder, typename OnFile>
bool WalkTree(Folder& top, Context topContext, bool details, OnFolder&& onFolder, OnFile&& onFile,
              const bool* stop = nullptr) {
    struct Frame {
        std::unique_ptr<Folder> owned;
        Folder* folder;
        Context context;
        std::vector<EntryInfo> entries;
        std::size_t next = 0;
    };
    bool ok = true;
    std::vector<Frame> stack;
    std::vector<std::wstring> names;  // of the entry being visited; its folders' while in it
    const auto enter = [&](std::unique_ptr<Folder> owned, Folder* folder, Context context) {
        Frame frame{std::move(owned), folder, std::move(context), {}, 0};
        if (!(details ? folder->List(frame.entries) : folder->ListKinds(frame.entries))) ok = false;
        std::sort(frame.entries.begin(), frame.entries.end(),
                  [](const EntryInfo& a, const EntryInfo& b) { return a.name < b.name; });
        stack.push_back(std::move(frame));
    };
    enter(nullptr, &top, std::move(topContext));
    while (!stack.empty() && !(stop != nullptr && *stop)) {
        Frame& frame = stack.back();
        if (frame.next == frame.entries.size()) {
            stack.pop_back();
            if (!stack.empty()) names.pop_back();
            continue;
        }
        const EntryInfo& entry = frame.entries[frame.next++];
        names.push_back(entry.name);
        bool entered = false;
        if (entry.kind == EntryKind::File) {
            ok = onFile(*frame.folder, frame.context, names, entry) && ok;
        } else if (entry.kind == EntryKind::Folder) {
            std::optional<Context> childContext;
            if (stack.size() >= static_cast<std::size_t>(kMaxDepth)) {
                ok = false;
            } else {
                childContext = onFolder(frame.context, names, entry);
            }
            if (childContext) {
                if (std::unique_ptr<Folder> child = frame.folder->OpenFolder(entry.name)) {
                    Folder* raw = child.get();
                    enter(std::move(child), raw, std::move(*childContext));
                    entered = true;
                } else {
                    ok = false;
                }
            }
        }
        if (!entered) names.pop_back();
    }
    return ok;
}

// Sets `joined` to `names` joined by the separator, reusing its buffer.
void JoinNames(const std::vector<std::wstring>& names, std::wstring& joined) {
    joined.clear();
    for (const auto& name : names) {
        if (!joined.empty()) joined += path::kSeparator;
        joined += name;
    }
}

// Appends what is left of `file` to `contents`, refusing to go past `limit`
// bytes in all (a file may grow while it is read).
bool ReadRest(InputFile& file, std::uint64_t limit, std::string& contents, FsStatus* status) {
    std::string chunk(64 * 1024, '\0');
    for (;;) {
        std::size_t got = 0;
        if (!file.Read(chunk.data(), chunk.size(), got, status)) return false;
        if (got == 0) return true;
        if (contents.size() + got > limit) {
            Fail(status, FsError::TooLarge);
            return false;
        }
        contents.append(chunk.data(), got);
    }
}

}  // namespace

std::vector<std::wstring> PathComponents(std::wstring_view path) {
    std::vector<std::wstring> names;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || IsSeparator(path[i])) {
            if (i > start) names.emplace_back(path.substr(start, i - start));
            start = i + 1;
        }
    }
    return names;
}

bool IsEntryName(std::wstring_view name) {
    if (name.empty() || name == L"." || name == L"..") return false;
    return std::none_of(name.begin(), name.end(), [](wchar_t c) { return c == L'\0' || c == L'/' || c == L'\\'; });
}

std::optional<RootedPath> LocateBelow(const std::wstring& path, const std::vector<std::wstring>& roots) {
    const Split target = SplitPath(path);
    const std::wstring* best = nullptr;
    std::size_t bestSize = 0;
    for (const auto& root : roots) {
        const Split candidate = SplitPath(root);
        if (root.empty() || candidate.absolute != target.absolute || candidate.names.size() > target.names.size()) {
            continue;
        }
        const bool below = std::equal(candidate.names.begin(), candidate.names.end(), target.names.begin(),
                                      [](const std::wstring& a, const std::wstring& b) { return SameName(a, b); });
        if (below && (best == nullptr || candidate.names.size() > bestSize)) {
            best = &root;
            bestSize = candidate.names.size();
        }
    }
    if (best == nullptr) return std::nullopt;
    RootedPath located{*best, std::vector<std::wstring>(target.names.begin() + static_cast<std::ptrdiff_t>(bestSize),
                                                         target.names.end())};
    for (const auto& name : located.below) {
        if (name == L"." || name == L"..") return std::nullopt;
    }
    return located;
}

std::unique_ptr<Folder> PathOpener::OpenFolder(const std::wstring& path, bool create, FsStatus* status) const {
    if (auto located = LocateBelow(path, roots_)) {
        return Walk(OpenOutsideRoots(located->root, create, status), located->below, located->below.size(), create,
                    status);
    }
    return OpenOutsideRoots(path, create, status);
}

std::unique_ptr<Folder> PathOpener::OpenParent(const std::wstring& path, std::wstring& name, bool create,
                                               FsStatus* status) const {
    const Split split = SplitPath(path);
    if (split.names.empty() || !IsEntryName(split.names.back())) {
        Fail(status, FsError::Invalid);
        return nullptr;
    }
    name = split.names.back();
    if (auto located = LocateBelow(path, roots_); located && !located->below.empty()) {
        return Walk(OpenOutsideRoots(located->root, create, status), located->below, located->below.size() - 1,
                    create, status);
    }
    return OpenOutsideRoots(ParentPath(path), create, status);
}

std::unique_ptr<Folder> PathOpener::OpenOutsideRoots(const std::wstring& path, bool create, FsStatus* status) const {
    if (auto folder = files_.OpenFolder(path, status); folder || !create) return folder;
    // The deepest folder that exists, then down from there.
    std::vector<std::wstring> missing;
    std::wstring existing = path;
    std::unique_ptr<Folder> folder;
    for (int depth = 0; !folder && depth < kMaxDepth; ++depth) {
        const std::wstring parent = ParentPath(existing);
        if (parent == existing) break;
        const auto names = PathComponents(existing);
        if (names.empty()) break;
        missing.push_back(names.back());
        existing = parent;
        folder = files_.OpenFolder(existing, status);
    }
    if (!folder) return nullptr;
    std::reverse(missing.begin(), missing.end());
    return Walk(std::move(folder), missing, missing.size(), true, status);
}

bool ReadAll(InputFile& file, std::uint64_t limit, std::string& contents, FsStatus* status) {
    contents.clear();
    const std::uint64_t expected = file.Info().size;
    if (expected > limit) {
        Fail(status, FsError::TooLarge);
        return false;
    }
    contents.reserve(static_cast<std::size_t>(expected));
    return ReadRest(file, limit, contents, status);
}

bool ReadFileIn(Folder& folder, std::wstring_view name, std::uint64_t limit, std::string& contents,
                FsStatus* status) {
    const auto file = folder.OpenFile(name, status);
    return file && ReadAll(*file, limit, contents, status);
}

bool ReadTail(InputFile& file, std::uint64_t maxBytes, std::string& contents, FsStatus* status) {
    const std::uint64_t size = file.Info().size;
    const bool cut = size > maxBytes;
    if (cut && !file.SeekTo(size - maxBytes, status)) return false;
    contents.clear();
    if (!ReadRest(file, maxBytes, contents, status)) return false;
    if (cut) {
        const auto newline = contents.find('\n');
        contents.erase(0, newline == std::string::npos ? contents.size() : newline + 1);
    }
    return true;
}

bool WriteAtomically(Folder& folder, std::wstring_view name, std::string_view contents, FsStatus* status) {
    if (!IsEntryName(name)) {
        Fail(status, FsError::Invalid);
        return false;
    }
    std::wstring temporary;
    std::unique_ptr<OutputFile> out;
    FsStatus created;
    for (int attempt = 0; attempt < 100 && !out; ++attempt) {
        temporary = TemporaryNameFor(name);
        out = folder.OpenForWriting(temporary, Folder::Create::New, &created);
        if (!out && created.error != FsError::Exists) break;
    }
    if (!out) {
        if (status != nullptr) *status = created;
        return false;
    }
    bool ok = out->Write(contents, status) && out->Sync(status);
    ok = out->Close(status) && ok;
    ok = ok && folder.Rename(temporary, name, true, status);
    if (!ok) {
        folder.Remove(temporary, false);
        return false;
    }
    folder.Sync();
    return true;
}

bool CopyInto(InputFile& from, Folder& to, std::wstring_view name, FsStatus* status) {
    auto out = to.OpenForWriting(name, Folder::Create::Truncate, status);
    if (!out) return false;
    std::string chunk(kChunkBytes, '\0');
    bool ok = true;
    for (;;) {
        std::size_t got = 0;
        if (!from.Read(chunk.data(), chunk.size(), got, status)) {
            ok = false;
            break;
        }
        if (got == 0) break;
        if (!out->Write(std::string_view(chunk.data(), got), status)) {
            ok = false;
            break;
        }
    }
    if (ok) out->SetModified(from.Info().modifiedNs);
    ok = out->Close(status) && ok;
    if (!ok) to.Remove(name, false);
    return ok;
}

bool CopyTree(Folder& from, Folder& to) {
    // Each source folder's context is its copy in the destination, open only
    // while the source folder is. The top one is the caller's.
    using Destination = std::shared_ptr<Folder>;
    bool ok = true;
    ok = WalkTree(
             from, Destination(Destination(), &to), false,
             [&](const Destination& destination, const std::vector<std::wstring>&, const EntryInfo& entry)
                 -> std::optional<Destination> {
                 Destination made = destination->CreateFolder(entry.name);
                 if (!made) {
                     ok = false;
                     return std::nullopt;
                 }
                 return made;
             },
             [&](Folder& source, const Destination& destination, const std::vector<std::wstring>&,
                 const EntryInfo& entry) {
                 auto in = source.OpenFile(entry.name);
                 return in && CopyInto(*in, *destination, entry.name);
             }) &&
         ok;
    return ok;
}

void VisitFiles(Folder& folder, bool recursive,
                const std::function<void(const std::wstring& relative, const EntryInfo& entry)>& visit) {
    std::wstring relative;  // one buffer for the walk
    WalkTree(
        folder, true, false,
        [&](bool, const std::vector<std::wstring>&, const EntryInfo&) -> std::optional<bool> {
            return recursive ? std::optional<bool>(true) : std::nullopt;
        },
        [&](Folder&, bool, const std::vector<std::wstring>& names, const EntryInfo& entry) {
            JoinNames(names, relative);
            visit(relative, entry);
            return true;
        });
}

void VisitTree(Folder& folder, bool recursive,
               const std::function<void(const std::vector<std::wstring>& names, const EntryInfo& entry)>& visitFolder,
               const std::function<void(const std::vector<std::wstring>& names, const EntryInfo& entry)>& visitFile) {
    WalkTree(
        folder, true, true,
        [&](bool, const std::vector<std::wstring>& names, const EntryInfo& entry) -> std::optional<bool> {
            visitFolder(names, entry);
            return recursive ? std::optional<bool>(true) : std::nullopt;
        },
        [&](Folder&, bool, const std::vector<std::wstring>& names, const EntryInfo& entry) {
            visitFile(names, entry);
            return true;
        });
}

std::wstring TemporaryNameFor(std::wstring_view name) {
    static std::atomic<unsigned long> counter{0};
    return std::wstring(name) + L"." + std::to_wstring(counter.fetch_add(1)) + L".part";
}

bool IsTemporaryName(std::wstring_view name) {
    // Also "<name>.part.XXXXXX": a library writing the file may put its own
    // temporary beside the name it was given.
    constexpr std::wstring_view kMark = L".part";
    const std::size_t at = name.rfind(kMark);
    return at != std::wstring_view::npos && at > 0 &&
           (at + kMark.size() == name.size() || name[at + kMark.size()] == L'.');
}

bool HoldsAnyFile(Folder& folder) {
    bool found = false;
    WalkTree(
        folder, true, false,
        [](bool, const std::vector<std::wstring>&, const EntryInfo&) -> std::optional<bool> { return true; },
        [&](Folder&, bool, const std::vector<std::wstring>&, const EntryInfo&) { return found = true; }, &found);
    return found;
}

std::wstring JoinPath(const std::wstring& folder, std::wstring_view name) {
    std::wstring joined;
    joined.reserve(folder.size() + 1 + name.size());
    joined += folder;
    if (!folder.empty() && !IsSeparator(folder.back())) joined += path::kSeparator;
    joined += name;
    return joined;
}

}  // namespace zep::platform
