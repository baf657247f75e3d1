// What a staging folder would hold once the agent's logs were copied into it.
// The copy is only planned: the files stay where they are and are read once,
// straight into the archive, when the staging folder is packed. Only when the
// archive cannot be written are they copied in (scrubbed where planned), so
// that the staging folder is left holding what it would have held.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/collect/Selection.h"
#include "platform/env/FileSystemEnv.h"

namespace zep::collect {

struct PlannedFile : ListedEntry {
    bool scrub = false;    // through the log scrub on its way
    bool dropped = false;  // deleted from the staging folder before it was there
};

struct StagingPlan {
    std::wstring destination;                  // the folder the files belong in
    std::wstring sourcePath;                   // where they are, for log lines
    std::shared_ptr<platform::Folder> source;  // opened when planned; `path`s are below it
    std::vector<ListedEntry> folders;          // parents before children
    std::vector<PlannedFile> files;
};

// The names of `path` below `base`, compared as the running system compares
// paths; nullopt when `path` is not `base` or below it.
std::optional<std::vector<std::wstring>> NamesBelow(const std::wstring& path, const std::wstring& base);

// A planned file as seen from a folder. Its names below that folder are
// `above` and then those of `file->path` after the first `skip`: the views
// of one plan share them rather than each holding a copy.
struct PlannedView {
    std::shared_ptr<StagingPlan> plan;  // holds `file`
    PlannedFile* file;
    std::shared_ptr<const std::vector<std::wstring>> above;
    std::size_t skip = 0;

    std::vector<std::wstring> Path() const;
};

// The plans of one collection, by destination.
class StagingPlans {
public:
    // Replaces any plan for the same destination.
    void Put(std::shared_ptr<StagingPlan> plan);
    // The planned files below `folder` (recursively, or directly in it),
    // but the dropped ones.
    std::vector<PlannedView> FilesBelow(const std::wstring& folder, bool recursive);
    // Takes out the plans whose destination is `folder` or below it.
    std::vector<std::shared_ptr<StagingPlan>> TakeBelow(const std::wstring& folder);

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<StagingPlan>> plans_;
};

// Copies the planned files of `plan` into its destination (folders first,
// last write times kept, scrubbed where planned). False when any failed.
bool Materialise(const StagingPlan& plan, const wchar_t* label);

}  // namespace zep::collect
