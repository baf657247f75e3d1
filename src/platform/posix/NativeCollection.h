// The collection of the agent's context done natively, without PowerShell
// and without a shell: the same files as the Windows command lines leave.
// Links are never followed and special files (FIFOs, sockets, devices) never
// opened; a file that vanishes or cannot be read is logged and skipped.
#pragma once

#include "platform/env/CollectionEnv.h"

namespace zep::platform {

class NativeCollection : public CollectionEnv {
public:
    int CopyLogs(const std::wstring& source, const std::wstring& destination, std::uint64_t keepBytes) override;
    int RemoveArchives(const std::wstring& folder) override;
    int LimitLogSize(const std::wstring& folder, std::uint64_t limitBytes) override;
    int ScrubLogs(const std::wstring& folder) override;
    int ExportRegistry(const std::wstring& key, const std::wstring& outputFile) override;
    int CompressFolder(const std::wstring& sourceDir, const std::wstring& zipPath) override;
    int CompressPluginFolder(const std::wstring& diagFolder, const std::wstring& zipPath) override;
    std::wstring PackageScriptName() override;  // "install.sh"
    // /bin/sh <script> -command get-diagnostics -outDir <folder>, as an argv.
    int RunPackageScript(const std::wstring& script, const std::wstring& outputFolder) override;
};

}  // namespace zep::platform
