#include "artifacts/PowerShellCollection.h"

#include "artifacts/PowerShellCommands.h"
#include "artifacts/ZipNames.h"
#include "platform/agent/CommonBase.h"
#include "platform/env/Env.h"
#include "platform/util/Paths.h"

namespace zep::artifacts {

int PowerShellCollection::Run(const std::wstring& commandLine) {
    return ProcessWrap::LaunchApplicationAndCheckExitCode(commandLine, L"", true, hostContext_);
}

int PowerShellCollection::CopyLogs(const std::wstring& source, const std::wstring& destination, std::uint64_t) {
    // The script copies everything; the later scripts remove what is not kept.
    const std::wstring script = CopyLogsScript(FileSystem::GetExtendedAbsolutePathW(source),
                                               FileSystem::GetExtendedAbsolutePathW(destination));
    return Run(PowerShellScriptCommand(utility::GetSystemDirectoryW(), script));
}

int PowerShellCollection::RemoveArchives(const std::wstring& folder) {
    const std::wstring script = RemoveZipsScript(FileSystem::GetExtendedAbsolutePathW(folder));
    return Run(PowerShellScriptCommand(utility::GetSystemDirectoryW(), script));
}

int PowerShellCollection::LimitLogSize(const std::wstring& folder, std::uint64_t) {
    // The script carries its own limit (50MB); only this one puts the folder
    // inside a single-quoted string, hence the escape.
    const std::wstring script = LimitLogsScript(EscapeSingleQuotes(FileSystem::GetExtendedAbsolutePathW(folder)));
    return Run(PowerShellScriptCommand(utility::GetSystemDirectoryW(), script));
}

int PowerShellCollection::ScrubLogs(const std::wstring& folder) {
    const std::wstring script = ScrubPiiScript(FileSystem::GetExtendedAbsolutePathW(folder));
    return Run(PowerShellScriptCommand(utility::GetSystemDirectoryW(), script));
}

int PowerShellCollection::ExportRegistry(const std::wstring& key, const std::wstring& outputFile) {
    return Run(RegistryExportCommand(utility::GetWindowsDirectoryW(), outputFile, key));
}

int PowerShellCollection::CompressFolder(const std::wstring& sourceDir, const std::wstring& zipPath) {
    const std::wstring extendedSource = FileSystem::GetExtendedAbsolutePathW(sourceDir + zep::path::NativePath(L"\\*"));
    const std::wstring extendedZip = FileSystem::GetExtendedAbsolutePathW(zipPath);
    return Run(CompressArchiveCommand(utility::GetSystemDirectoryW(), extendedSource, extendedZip));
}

int PowerShellCollection::CompressPluginFolder(const std::wstring& diagFolder, const std::wstring& zipPath) {
    return Run(PluginZipCommand(utility::GetSystemDirectoryW(), diagFolder, zipPath));
}

std::wstring PowerShellCollection::PackageScriptName() { return L"install.ps1"; }

int PowerShellCollection::RunPackageScript(const std::wstring& script, const std::wstring& outputFolder) {
    return Run(PackageScriptCommand(utility::GetSystemDirectoryW(), script, outputFolder));
}

std::shared_ptr<platform::CollectionEnv> Collector(void* hostContext) {
    if (auto installed = platform::CurrentEnv()->collection) return installed;
    return std::make_shared<PowerShellCollection>(hostContext);
}

}  // namespace zep::artifacts
