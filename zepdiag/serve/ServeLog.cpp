#include "serve/ServeLog.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <string>

namespace zepdiag::serve {

void LogLine(std::string_view message) {
    try {
        const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
        std::tm utc{};
        char stamp[32] = "";
        if (::gmtime_r(&now, &utc) != nullptr) std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
        std::string line = std::string(stamp) + " " + std::string(message) + "\n";
        std::string_view rest = line;
        while (!rest.empty()) {
            const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return;  // nowhere to log: the service goes on
            rest.remove_prefix(static_cast<std::size_t>(written));
        }
    } catch (...) {
    }
}

}  // namespace zepdiag::serve
