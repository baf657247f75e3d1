#include "support/Programs.h"

#ifdef _WIN32
#include "platform/windows/Win32.h"
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
