// What scans that were killed half-way leave behind. Only scans write to the
// agent's latest/ folder and to the temporary component tree; with the
// device's scan lock held no other scan is writing there, so whatever is left
// at the start of a scan is debris: staging folders, partial archives and
// documents, per-scan temporary folders. Left alone it would grow with every
// interrupted scan and be packed into the next archives' listings.
#pragma once

#include <string>

namespace zep::artifacts {

// Removes the debris from `latestFolder` (folders and unfinished writes; the
// last scan's archive and scan result stay) and everything below
// `componentFolder`, logging each removal.
void RemoveDebrisOfDeadScans(const std::wstring& latestFolder, const std::wstring& componentFolder);

// Removes unfinished writes (partial archives, temporary documents) from
// `folder`, logging each removal.
void RemoveUnfinishedWrites(const std::wstring& folder);

}  // namespace zep::artifacts
