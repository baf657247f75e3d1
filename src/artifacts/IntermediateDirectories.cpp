// Creating every folder on a path, one level at a time.
#include <exception>
#include <vector>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"

namespace {

constexpr const char* kCreateIntermediateDirectories = "DiagnosticsManager::CreateIntermediateDirectories";

// Splits at every separator. Empty components are kept, a trailing one too,
// so that "a\b\" yields "a", "b" and "".
std::vector<std::wstring> SplitAtSeparators(const std::wstring& path) {
    std::vector<std::wstring> components;
    std::size_t start = 0;
    for (;;) {
        const std::size_t next = path.find(zep::path::kSeparator, start);
        if (next == std::wstring::npos) {
            components.push_back(path.substr(start));
            return components;
        }
        components.push_back(path.substr(start, next - start));
        start = next + 1;
    }
}

}  // namespace

bool DiagnosticsManager::CreateIntermediateDirectories(const std::wstring& path) {
    try {
        std::wstring running;
        for (const auto& component : SplitAtSeparators(path)) {
            running += component;
            // Empty only before the first separator of an absolute path: the
            // root, which always exists.
            if (!running.empty() && !FileSystem::createDirectory(running, false)) {
                // Something already there (even a file) is not an error here;
                // the caller finds out when it uses the path.
                if (!FileSystem::directoryExists(running) && !FileSystem::fileExists(running)) return false;
            }
            running += zep::path::kSeparator;
        }
        return true;
    } catch (const std::exception& ex) {
        g_log.e(L"%s: Exception Occurred: %ls", kCreateIntermediateDirectories, String::UTF8ToUTF16(ex.what()));
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kCreateIntermediateDirectories, std::wstring(L"unknown exception"));
    }
    return false;
}
