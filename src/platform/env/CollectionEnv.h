// How a scan collects the agent's context and packs it. The agent's Windows
// way runs PowerShell and registry-editor command lines; a platform may offer
// a native way instead that leaves the same files behind. Each operation
// returns what ProcessWrap::LaunchApplicationAndCheckExitCode returns for its
// command line: non-zero when it ran to a good end. None of them throws.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "DiagnosticScanner/Export.h"

namespace zep::platform {

class CollectionEnv {
public:
    virtual ~CollectionEnv() = default;

    // copy-item of everything below `source` into `destination` (created),
    // recursively, ignoring what cannot be read. A native copy may leave out
    // at once what RemoveArchives and LimitLogSize(`keepBytes`) would delete
    // afterwards, so that it never reads what is not kept.
    virtual int CopyLogs(const std::wstring& source, const std::wstring& destination, std::uint64_t keepBytes) = 0;
    // Deletes every file below `folder` whose name ends in ".zip" in any letter case.
    virtual int RemoveArchives(const std::wstring& folder) = 0;
    // Walks the files below `folder` from the newest to the oldest (last write
    // time) adding up their sizes; every file at which the running total
    // exceeds `limitBytes` is deleted.
    virtual int LimitLogSize(const std::wstring& folder, std::uint64_t limitBytes) = 0;
    // In each file directly in `folder` (not in its sub-folders), on each line
    // that does not contain "version" in any letter case, replaces every
    // dotted quad of 1-3 digit groups standing directly between double quotes
    // with [REDACTED_IP] (the quotes stay). Everything else stays as it was.
    virtual int ScrubLogs(const std::wstring& folder) = 0;
    // Exports HKEY_LOCAL_MACHINE\<key> with its sub-keys to `outputFile` in the
    // registry editor's format.
    virtual int ExportRegistry(const std::wstring& key, const std::wstring& outputFile) = 0;
    // Packs everything below `sourceDir` into the new zip file `zipPath`, the
    // entries named relative to `sourceDir`. `zipPath` does not exist yet.
    virtual int CompressFolder(const std::wstring& sourceDir, const std::wstring& zipPath) = 0;
    // Packs a plug-in's diagnostics folder into the new zip `zipPath`: every
    // top-level entry of `diagFolder` except "scan-history.log" and "latest",
    // plus latest\scan-result.json at the archive's top level; never a file
    // named "plugin-upload-meta.json" nor one whose name ends in ".zip".
    // Nothing to pack is a failure (0).
    virtual int CompressPluginFolder(const std::wstring& diagFolder, const std::wstring& zipPath) = 0;
    // The file name of a package's diagnostics script in its temp folder.
    virtual std::wstring PackageScriptName() = 0;
    // Runs a package's diagnostics script with the command "get-diagnostics"
    // and the output folder, and waits for it to end.
    virtual int RunPackageScript(const std::wstring& script, const std::wstring& outputFolder) = 0;
};

// The running system's native collection (the one-pass packer with the
// system's way of running package scripts): hosts that offer a choice of the
// two ways take it from here.
DIAGSCANNER_API std::shared_ptr<CollectionEnv> NativeCollectionEnv();

}  // namespace zep::platform
