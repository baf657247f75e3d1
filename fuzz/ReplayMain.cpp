// Replays inputs through a harness without libFuzzer: every file named, and
// every file in the folders named. The ordinary and sanitizer builds run the
// seed corpora this way, so that a harness that no longer builds, or a seed
// that now breaks an invariant, is seen at once and not only by the fuzz run.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path named(argv[i]);
        std::vector<std::filesystem::path> inputs;
        if (std::filesystem::is_directory(named)) {
            for (const auto& entry : std::filesystem::directory_iterator(named)) {
                if (entry.is_regular_file()) inputs.push_back(entry.path());
            }
        } else if (std::filesystem::is_regular_file(named)) {
            inputs.push_back(named);
        } else {
            std::cerr << named.string() << ": no such file or folder\n";
            return 1;
        }
        for (const auto& path : inputs) {
            std::ifstream in(path, std::ios::binary);
            const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            ++replayed;
        }
    }
    std::cout << replayed << " inputs replayed\n";
    return replayed > 0 ? 0 : 1;  // an empty corpus is a mistake, not a pass
}
