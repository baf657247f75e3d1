// What zepdiag needs of Windows itself, outside the module: where it runs
// from, and its arguments as UTF-8.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace zepdiag {

// The folder of the running program (GetModuleFileNameW).
std::filesystem::path RunningProgramFolder();

// The program's arguments, its name first, as UTF-8 (GetCommandLineW split
// by CommandLineToArgvW): main's own are in the ANSI code page, which cannot
// spell every folder name.
std::vector<std::string> Utf8Arguments();

}  // namespace zepdiag
