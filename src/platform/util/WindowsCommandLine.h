// Windows command lines as text: the rules CommandLineToArgvW (and the C
// runtime) split them by, and the quoting that makes an argument vector come
// back out of them unchanged. Pure functions, used on every system.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zep::platform {

// Splits a Windows command line the way CommandLineToArgvW does (the program
// name up to the next blank or between double quotes; then backslashes and
// double quotes by the 2n / 2n+1 rule).
std::vector<std::wstring> SplitWindowsCommandLine(const std::wstring& commandLine);

// A launch's command line with its arguments, if any, after one blank.
std::wstring WithArguments(const std::wstring& commandLine, const std::wstring& arguments);

// The command line that SplitWindowsCommandLine (and CommandLineToArgvW) turn
// back into `argv`. Nullopt when there is none: an empty vector, an empty
// program name, a program name with a double quote (which no command line can
// carry), or a NUL anywhere.
std::optional<std::wstring> JoinWindowsCommandLine(const std::vector<std::wstring>& argv);

}  // namespace zep::platform
