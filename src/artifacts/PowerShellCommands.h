// The command lines of the Windows way of collecting and packing, character
// for character. `systemDir` and `windowsDir` come without a trailing
// backslash; paths are inserted as given (callers pass the extended forms
// where the command needs them).
#pragma once

#include <string>

namespace zep::artifacts {

// <systemDir>\WindowsPowerShell\v1.0\powershell.exe -ExecutionPolicy bypass
// -NoProfile -NonInteractive -WindowStyle Hidden
std::wstring PowerShellPrefix(const std::wstring& systemDir);

// The prefix, a blank, then "<script>" in double quotes.
std::wstring PowerShellScriptCommand(const std::wstring& systemDir, const std::wstring& script);

// The four scripts of the agent's log collection.
std::wstring CopyLogsScript(const std::wstring& extSource, const std::wstring& extDestination);
std::wstring RemoveZipsScript(const std::wstring& extDestination);
std::wstring LimitLogsScript(const std::wstring& quotedDestination);
std::wstring ScrubPiiScript(const std::wstring& extDestination);

// <windowsDir>\regedit.exe /e "<outputFile>" HKEY_LOCAL_MACHINE\<key>
std::wstring RegistryExportCommand(const std::wstring& windowsDir, const std::wstring& outputFile,
                                   const std::wstring& key);

// Compress-Archive of `extSourcePattern` into `extZip` (both escaped here).
std::wstring CompressArchiveCommand(const std::wstring& systemDir, const std::wstring& extSourcePattern,
                                    const std::wstring& extZip);

// The plug-in zip: every top-level entry of `diagFolder` but the history and
// "latest", plus latest's scan result, never the delete preference nor a zip.
std::wstring PluginZipCommand(const std::wstring& systemDir, const std::wstring& diagFolder,
                              const std::wstring& zipPath);

// A package script run with "get-diagnostics" into `outputFolder`.
std::wstring PackageScriptCommand(const std::wstring& systemDir, const std::wstring& script,
                                  const std::wstring& outputFolder);

}  // namespace zep::artifacts
