#include "support/Programs.h"

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif

namespace zep::testing {

std::filesystem::path ProgramBesideTests(const std::string& name) {
#ifdef _WIN32
    std::wstring self(32768, L'\0');
    self.resize(::GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size())));
    return std::filesystem::path(self).parent_path() / (name + ".exe");
#else
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
#endif
}

}  // namespace zep::testing
