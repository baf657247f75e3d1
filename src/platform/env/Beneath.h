// Paths below trusted roots, and the file operations built on open folders.
//
// The module trusts a few folders (the agent's data root, the system's
// temporary folder, the logged-in user's local application data); other
// users may be able to write below some of them. A path below such a root is
// reached from the root down, one component at a time, never through a link
// or reparse point, and what it names is acted on through the folder that
// was opened: the walk is the check, so a link swapped in after a check
// cannot redirect the use. A path outside every root is opened as it is.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/env/FileSystemEnv.h"

namespace zep::platform {

// The components of a path, split at the running system's separators
// ('\' and '/' on Windows, '/' elsewhere); empty components are dropped.
std::vector<std::wstring> PathComponents(std::wstring_view path);

// True when `name` can be one entry of a folder: not empty, not "." or "..",
// without a separator or NUL.
bool IsEntryName(std::wstring_view name);

// A path as its trusted root and the names below it.
struct RootedPath {
    std::wstring root;
    std::vector<std::wstring> below;  // empty: the root itself
};

// The innermost of `roots` that `path` is or lies below, compared component
// by component (without regard to letter case on Windows, where "\\?\" is
// ignored too). Nullopt when no root holds it, or when a component below the
// root is "." or "..", which could climb out of it.
std::optional<RootedPath> LocateBelow(const std::wstring& path, const std::vector<std::wstring>& roots);

// Opens files and folders by path, the way the module's paths are meant.
class PathOpener {
public:
    PathOpener(FileSystemEnv& files, std::vector<std::wstring> trustedRoots)
        : files_(files), roots_(std::move(trustedRoots)) {}

    // The folder `path`. With `create`, the missing folders on the way are
    // made (a missing root as any path outside the roots, then what is below
    // it beneath it).
    std::unique_ptr<Folder> OpenFolder(const std::wstring& path, bool create, FsStatus* status = nullptr) const;
    // The folder holding the last component of `path`, which goes to `name`.
    std::unique_ptr<Folder> OpenParent(const std::wstring& path, std::wstring& name, bool create,
                                       FsStatus* status = nullptr) const;

private:
    std::unique_ptr<Folder> OpenOutsideRoots(const std::wstring& path, bool create, FsStatus* status) const;

    FileSystemEnv& files_;
    std::vector<std::wstring> roots_;
};

// ---- Operations on open folders ----------------------------------------

// Reads all of an open file, refusing one of more than `limit` bytes
// (FsError::TooLarge) without reading past the limit.
bool ReadAll(InputFile& file, std::uint64_t limit, std::string& contents, FsStatus* status = nullptr);

// Reads the regular file `name` of `folder`, at most `limit` bytes.
bool ReadFileIn(Folder& folder, std::wstring_view name, std::uint64_t limit, std::string& contents,
                FsStatus* status = nullptr);

// Reads the end of an open file: at most `maxBytes`, starting at a line
// start (the first, possibly cut, line is dropped when the file is longer).
bool ReadTail(InputFile& file, std::uint64_t maxBytes, std::string& contents, FsStatus* status = nullptr);

// A name for a file being written that will be renamed to `name` once
// complete: "<name>.<unique>.part". Whatever carries such a name (or that
// name with a further ".suffix") was left by a writer that did not finish,
// once no writer can be running.
std::wstring TemporaryNameFor(std::wstring_view name);
bool IsTemporaryName(std::wstring_view name);

// Replaces `name` with `contents` atomically: a temporary file beside it is
// written, flushed to stable storage and renamed over it, and the folder is
// synced. On failure the old file is unchanged and no temporary file is left.
bool WriteAtomically(Folder& folder, std::wstring_view name, std::string_view contents,
                     FsStatus* status = nullptr);

// Copies the bytes of `from` to the new file `name` in `to` (replacing a file
// there), keeping the last write time.
bool CopyInto(InputFile& from, Folder& to, std::wstring_view name, FsStatus* status = nullptr);

// Copies everything below `from` into `to`, merging into what is there.
// Links and special files are left out. False when anything failed; what
// could be copied is copied.
bool CopyTree(Folder& from, Folder& to);

// Calls `visit` for each regular file below `folder` (recursively when
// asked) with its path relative to `folder` (joined with the running
// system's separator) and its entry, which carries its name and kind only.
// Links are not followed; a folder that cannot be read is skipped with what
// lies below it.
void VisitFiles(Folder& folder, bool recursive,
                const std::function<void(const std::wstring& relative, const EntryInfo& entry)>& visit);

// As VisitFiles, with each entry in full and its names below `folder` (its
// own last), and `visitFolder` for each folder below `folder` before what
// lies below it (when recursive; else for each folder directly in it).
void VisitTree(Folder& folder, bool recursive,
               const std::function<void(const std::vector<std::wstring>& names, const EntryInfo& entry)>& visitFolder,
               const std::function<void(const std::vector<std::wstring>& names, const EntryInfo& entry)>& visitFile);

// True when there is a regular file anywhere below `folder`; the walk stops
// at the first one (links are not followed).
bool HoldsAnyFile(Folder& folder);

// `folder` + separator + `name`, without doubling a separator.
std::wstring JoinPath(const std::wstring& folder, std::wstring_view name);

}  // namespace zep::platform
