// What the harnesses share: splitting one input into parts, a log that
// formats every line and drops it, and a check that aborts (a finding) when an
// invariant of the code under test does not hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/agent/Log.h"
#include "platform/env/LogEnv.h"

namespace zep::fuzz {

inline std::string_view Bytes(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// The input cut at its first `count - 1` NUL bytes; missing parts are empty.
inline std::vector<std::string_view> Parts(std::string_view input, std::size_t count) {
    std::vector<std::string_view> parts;
    while (parts.size() + 1 < count) {
        const std::size_t nul = input.find('\0');
        if (nul == std::string_view::npos) break;
        parts.push_back(input.substr(0, nul));
        input.remove_prefix(nul + 1);
    }
    parts.push_back(input);
    parts.resize(count);
    return parts;
}

// The module's log, formatting (and escaping) each line and keeping none.
inline void FormatLogLines() {
    struct Discard : platform::LogSink {
        void Write(std::string_view) override {}
    };
    g_log.Open(std::make_shared<Discard>());
}

#define ZEP_FUZZ_CHECK(condition)                                                   \
    do {                                                                            \
        if (!(condition)) {                                                         \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                           \
        }                                                                           \
    } while (false)

}  // namespace zep::fuzz
