// powershell.exe for the Windows tests under Wine, whose own powershell.exe is
// a stub that does nothing. Installed as
// <system directory>\WindowsPowerShell\v1.0\powershell.exe (run with
// WINEDLLOVERRIDES=powershell.exe=n so that Wine prefers it to its built-in),
// it appends the command line exactly as it received it (GetCommandLineW, as
// UTF-8, one line per run) to the file named by ZEP_POWERSHELL_RECORD and
// exits 0, so that a test can compare what the module launched character for
// character. Exit status 2: no record file named, or the record not written.
#include <windows.h>

#include <string>

namespace {

constexpr wchar_t kRecordVariable[] = L"ZEP_POWERSHELL_RECORD";

std::string ToUtf8(const wchar_t* text) {
  const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  if (size <= 1) return {};
  std::string utf8(static_cast<size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8.data(), size, nullptr, nullptr);
  utf8.pop_back();  // the terminating NUL
  return utf8;
}

std::wstring RecordPath() {
  const DWORD size = GetEnvironmentVariableW(kRecordVariable, nullptr, 0);
  if (size == 0) return {};
  std::wstring path(size, L'\0');
  path.resize(GetEnvironmentVariableW(kRecordVariable, path.data(), size));
  return path;
}

}  // namespace

int main() {
  const std::wstring path = RecordPath();
  if (path.empty()) return 2;
  const std::string record = ToUtf8(GetCommandLineW()) + "\n";
  // Append-only access: each write lands at the end of the file, so runs
  // that overlap do not overwrite each other's lines.
  HANDLE file = CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return 2;
  DWORD written = 0;
  const BOOL ok = WriteFile(file, record.data(), static_cast<DWORD>(record.size()), &written, nullptr);
  CloseHandle(file);
  return ok && written == record.size() ? 0 : 2;
}
