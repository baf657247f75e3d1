// The Windows way of collecting and packing: the agent's PowerShell and
// registry-editor command lines, run through ProcessWrap with the host's
// context. Used whenever the platform offers no native collection.
#pragma once

#include <memory>

#include "platform/env/CollectionEnv.h"

namespace zep::artifacts {

class PowerShellCollection : public platform::CollectionEnv {
public:
    explicit PowerShellCollection(void* hostContext) : hostContext_(hostContext) {}

    int CopyLogs(const std::wstring& source, const std::wstring& destination, std::uint64_t keepBytes) override;
    int RemoveArchives(const std::wstring& folder) override;
    int LimitLogSize(const std::wstring& folder, std::uint64_t limitBytes) override;
    int ScrubLogs(const std::wstring& folder) override;
    int ExportRegistry(const std::wstring& key, const std::wstring& outputFile) override;
    int CompressFolder(const std::wstring& sourceDir, const std::wstring& zipPath) override;
    int CompressPluginFolder(const std::wstring& diagFolder, const std::wstring& zipPath) override;
    std::wstring PackageScriptName() override;  // "install.ps1"
    int RunPackageScript(const std::wstring& script, const std::wstring& outputFolder) override;

private:
    int Run(const std::wstring& commandLine);
    void* hostContext_;
};

// The installed platform's collection, or the Windows way when it has none.
std::shared_ptr<platform::CollectionEnv> Collector(void* hostContext);

}  // namespace zep::artifacts
