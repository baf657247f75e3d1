// Links for the tests of the no-follow rule, made the way each system can.
// On Windows the link is a symbolic link when the system makes one; under
// Wine, whose CreateSymbolicLinkW makes nothing, it is a Unix symbolic link
// made by /bin/ln (Wine runs a Unix program named by its Unix path), which
// Wine shows as a reparse point in a folder's listing and the path's
// attributes, as the backend expects. False when no link could be made.
#pragma once

#include <filesystem>

namespace zep::testing {

bool MakeFolderLink(const std::filesystem::path& link, const std::filesystem::path& target);
bool MakeFileLink(const std::filesystem::path& link, const std::filesystem::path& target);
// Removes the link itself (under Wine with /bin/rm: Wine's own calls would
// act on what the link leads to).
bool RemoveLink(const std::filesystem::path& link);
// Removes a test's folder with everything below it, links as links.
void RemoveTree(const std::filesystem::path& folder);
// True when `path` is a link (a reparse point on Windows).
bool IsLink(const std::filesystem::path& path);
// True when something (a link included, followed or not) is at `path`.
bool EntryExists(const std::filesystem::path& path);
// True when the tests run under Wine.
bool RunningUnderWine();

}  // namespace zep::testing
