// Windows command lines: backslashes stay on every system, since they are
// handed to a Windows process as they are.
#include "artifacts/PowerShellCommands.h"

#include "artifacts/ZipNames.h"

namespace zep::artifacts {

std::wstring PowerShellPrefix(const std::wstring& systemDir) {
    return systemDir +
           L"\\WindowsPowerShell\\v1.0\\powershell.exe -ExecutionPolicy bypass -NoProfile -NonInteractive "
           L"-WindowStyle Hidden";
}

std::wstring PowerShellScriptCommand(const std::wstring& systemDir, const std::wstring& script) {
    return PowerShellPrefix(systemDir) + L" \"" + script + L"\"";
}

std::wstring CopyLogsScript(const std::wstring& extSource, const std::wstring& extDestination) {
    return L"copy-item -Path " + extSource + L"\\* -destination " + extDestination +
           L" -recurse -Force -erroraction ignore";
}

std::wstring RemoveZipsScript(const std::wstring& extDestination) {
    return L"Get-ChildItem -Path " + extDestination + L" -include *.zip -File -Recurse | foreach{$_.Delete()}";
}

std::wstring LimitLogsScript(const std::wstring& quotedDestination) {
    // The running total includes the file that crosses the limit, so that
    // file goes too: what stays is never more than 50MB.
    return L"$rootFolder='" + quotedDestination +
           L"';$sizeLimitBytes=50MB;$totalSizeBytes=0;Get-ChildItem -Path $rootFolder -File -Recurse"
           L"|Sort-Object LastWriteTime -descending|ForEach-Object{if(($totalSizeBytes += $_.Length) -gt "
           L"$sizeLimitBytes){Remove-Item -Path $_.FullName -Force}}";
}

std::wstring ScrubPiiScript(const std::wstring& extDestination) {
    // \" reaches PowerShell as a plain double quote: the script itself stands
    // in double quotes on the command line. Lines with "version" are skipped
    // so that four-part version numbers survive.
    return L"Get-ChildItem -Path " + extDestination +
           LR"ps( -File|ForEach-Object{(Get-Content $_.FullName)| ForEach-Object{if ($_ -notmatch 'version'){)ps"
           LR"ps($_ -replace '(?<=\")(\d{1,3}\.\d{1,3}\.\d{1,3}\.\d{1,3})(?=\")', '[REDACTED_IP]'}else{$_}})ps"
           LR"ps(|Set-Content $_.FullName })ps";
}

std::wstring RegistryExportCommand(const std::wstring& windowsDir, const std::wstring& outputFile,
                                   const std::wstring& key) {
    return windowsDir + L"\\regedit.exe /e \"" + outputFile + L"\" HKEY_LOCAL_MACHINE\\" + key;
}

std::wstring CompressArchiveCommand(const std::wstring& systemDir, const std::wstring& extSourcePattern,
                                    const std::wstring& extZip) {
    // No -Force: the caller removes an existing archive first, so a zip that
    // is still there makes the command fail instead of being merged into.
    return PowerShellPrefix(systemDir) + L" -Command \"Compress-Archive -Path '" +
           EscapeSingleQuotes(extSourcePattern) + L"' -DestinationPath '" + EscapeSingleQuotes(extZip) + L"'\"";
}

std::wstring PackageScriptCommand(const std::wstring& systemDir, const std::wstring& script,
                                  const std::wstring& outputFolder) {
    return PowerShellPrefix(systemDir) + L" /f \"" + script + L"\" -command \"get-diagnostics\" -outDir \"" +
           outputFolder + L"\"";
}

}  // namespace zep::artifacts
