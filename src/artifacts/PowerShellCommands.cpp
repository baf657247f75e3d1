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

std::wstring PluginZipCommand(const std::wstring& systemDir, const std::wstring& diagFolder,
                              const std::wstring& zipPath) {
    // The paths go between single quotes unescaped, as the agent's line has
    // them: a folder whose name holds a quote breaks the script, and the zip
    // then counts as failed. With nothing left to pack the script exits with
    // 1 rather than leave Compress-Archive an empty list.
    return PowerShellPrefix(systemDir) + L" -Command \"$root='" + diagFolder +
           L"';$items=@();$items += Get-ChildItem -Path $root -Force | Where-Object { $_.Name -ne "
           L"'scan-history.log' -and $_.Name -ne 'latest' };$scanResult='" +
           diagFolder + L"\\latest\\scan-result.json" +
           L"';if (Test-Path $scanResult) { $items += Get-Item $scanResult };$items = $items | Where-Object { "
           L"$_.Name -ne 'plugin-upload-meta.json' -and $_.Extension -ne '.zip' };if ($items.Count -eq 0) { exit 1 "
           L"};Compress-Archive -Path ($items | ForEach-Object { $_.FullName }) -DestinationPath '" +
           zipPath + L"' -Force\"";
}

std::wstring PackageScriptCommand(const std::wstring& systemDir, const std::wstring& script,
                                  const std::wstring& outputFolder) {
    return PowerShellPrefix(systemDir) + L" /f \"" + script + L"\" -command \"get-diagnostics\" -outDir \"" +
           outputFolder + L"\"";
}

}  // namespace zep::artifacts
