#include "artifacts/Debris.h"

#include <vector>

#include "platform/agent/CommonBase.h"
#include "platform/env/Beneath.h"

namespace zep::artifacts {
namespace {

constexpr const char* kLabel = "DiagnosticsManager::RemoveDebrisOfDeadScans";

// Removes the entries of `folder` that `isDebris` picks.
template <typename Pick>
void RemoveFrom(const std::wstring& folder, Pick&& isDebris) {
    const auto open = FileSystem::openFolder(folder, false);
    std::vector<platform::EntryInfo> entries;
    if (!open || !open->List(entries)) return;
    for (const auto& entry : entries) {
        if (!isDebris(entry)) continue;
        platform::FsStatus status;
        if (open->Remove(entry.name, true, &status)) {
            g_log.d(L"%s: removed %s, left by a scan that did not finish", kLabel, platform::JoinPath(folder, entry.name));
        } else {
            g_log.e(L"%s: cannot remove %s: %s", kLabel, platform::JoinPath(folder, entry.name), status.message);
        }
    }
}

}  // namespace

void RemoveDebrisOfDeadScans(const std::wstring& latestFolder, const std::wstring& componentFolder) {
    RemoveFrom(latestFolder, [](const platform::EntryInfo& entry) {
        return entry.kind == platform::EntryKind::Folder || platform::IsTemporaryName(entry.name);
    });
    RemoveFrom(componentFolder, [](const platform::EntryInfo&) { return true; });
}

void RemoveUnfinishedWrites(const std::wstring& folder) {
    RemoveFrom(folder, [](const platform::EntryInfo& entry) {
        return entry.kind == platform::EntryKind::File && platform::IsTemporaryName(entry.name);
    });
}

}  // namespace zep::artifacts
