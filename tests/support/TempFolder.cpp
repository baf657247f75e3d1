#include "support/TempFolder.h"

#include <random>
#include <stdexcept>
#include <system_error>

namespace zep::testing {

std::filesystem::path MakeTempFolder(const std::string& prefix) {
    static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device seed;
    std::mt19937 random(seed());
    std::uniform_int_distribution<std::size_t> pick(0, sizeof kLetters - 2);
    const std::filesystem::path base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name = prefix;
        for (int i = 0; i < 10; ++i) name.push_back(kLetters[pick(random)]);
        std::error_code code;
        // create_directory is false for a name that exists: try another.
        if (std::filesystem::create_directory(base / name, code) && !code) return base / name;
    }
    throw std::runtime_error("no temporary folder could be made");
}

}  // namespace zep::testing
