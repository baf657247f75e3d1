// The stand-in powershell.exe must receive and record a command line exactly
// as CreateProcessW was given it, or every command-line check built on it
// proves nothing.
#include <windows.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "windows/support/StandIn.h"

namespace {

std::wstring SystemDirectory() {
  wchar_t buffer[MAX_PATH];
  return std::wstring(buffer, GetSystemDirectoryW(buffer, MAX_PATH));
}

std::string Utf8(const std::wstring& text) {
  const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                       nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), utf8.data(), size,
                      nullptr, nullptr);
  return utf8;
}

DWORD Launch(const wchar_t* application, std::wstring commandLine) {
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!CreateProcessW(application, commandLine.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW,
                      nullptr, nullptr, &startup, &process)) {
    return GetLastError() | 0x80000000u;
  }
  DWORD code = STILL_ACTIVE;
  if (WaitForSingleObject(process.hProcess, 30000) == WAIT_OBJECT_0) {
    GetExitCodeProcess(process.hProcess, &code);
  } else {
    TerminateProcess(process.hProcess, 1);
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return code;
}

// Installs the stand-in where the module looks for PowerShell: only inside a
// Wine prefix, never over a real Windows' own.
class PowerShellStandInTest : public testing::Test {
 protected:
  void SetUp() override {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    record_ = std::wstring(temp) + L"zep-powershell-record.txt";
    std::string why;
    if (!zep::testing::InstallPowerShellStandIn(record_, why)) GTEST_SKIP() << why;
    powershell_ = SystemDirectory() + L"\\WindowsPowerShell\\v1.0\\powershell.exe";
  }

  std::string Recorded() const {
    std::ifstream in(record_.c_str(), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

  std::wstring powershell_;
  std::wstring record_;
};

TEST_F(PowerShellStandInTest, RecordsEachCommandLineByteForByte) {
  const std::wstring options =
      L" -ExecutionPolicy bypass -NoProfile -NonInteractive -WindowStyle Hidden ";
  const std::vector<std::wstring> scripts = {
      L"\"copy-item -Path C:\\a b\\* -destination C:\\d -recurse -Force -erroraction ignore\"",
      L"\"$rootFolder='C:\\it''s';$sizeLimitBytes=50MB;Get-ChildItem -Path $rootFolder -File"
      L"|ForEach-Object{if(($t += $_.Length) -gt $s){Remove-Item -Path $_.FullName -Force}}\"",
      L"\"Get-ChildItem -Path C:\\x -File|ForEach-Object{(Get-Content $_.FullName)| ForEach-Object"
      L"{if ($_ -notmatch 'version'){$_ -replace '(?<=\\\")(\\d{1,3}\\.\\d{1,3})(?=\\\")', "
      L"'[REDACTED_IP]'}else{$_}}|Set-Content $_.FullName }\"",
      L"-Command \"Compress-Archive -Path 'C:\\T\u00e9mp\\\u20ac \U0001F600\\*' "
      L"-DestinationPath 'C:\\out.zip' -Force\"",
      L"/f \"C:\\pkg\\install.ps1\" -command \"get-diagnostics\" -outDir \"C:\\o d\\\"  \"  x  ",
  };
  std::string expected;
  for (const wchar_t* application : {static_cast<const wchar_t*>(nullptr), powershell_.c_str()}) {
    for (const std::wstring& script : scripts) {
      const std::wstring commandLine = powershell_ + options + script;
      EXPECT_EQ(Launch(application, commandLine), 0u) << Utf8(commandLine);
      expected += Utf8(commandLine) + "\n";
    }
  }
  EXPECT_EQ(Recorded(), expected);
}

}  // namespace
