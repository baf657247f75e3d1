// A disk that fills up: every file written through it fails once it would
// grow past `limit` bytes, as on a full disk (the bytes before the limit
// are written). Everything else goes to the real file system.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "support/HookedFiles.h"

namespace zep::testing {

class FullDisk : public HookedFiles {
public:
    FullDisk(std::shared_ptr<platform::FileSystemEnv> target, std::uint64_t limit) : HookedFiles(std::move(target)) {
        output = [limit](const std::wstring&, Output file) -> Output {
            return std::make_unique<LimitedOutput>(std::move(file), limit);
        };
    }
};

}  // namespace zep::testing
