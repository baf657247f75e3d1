#include "platform/util/Jwt.h"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>



namespace zep::jwt {
namespace {

int Sextet(char c, bool url) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == (url ? '-' : '+')) return 62;
    if (c == (url ? '_' : '/')) return 63;
    return -1;
}

std::optional<std::string> DecodeUnpadded(std::string_view text, bool url) {
    if (text.size() % 4 == 1) return std::nullopt;
    std::string out;
    out.reserve(text.size() / 4 * 3 + 2);
    std::uint32_t bits = 0;
    unsigned pending = 0;
    for (const char c : text) {
        const int value = Sextet(c, url);
        if (value < 0) return std::nullopt;
        bits = (bits << 6) | static_cast<std::uint32_t>(value);
        pending += 6;
        if (pending >= 8) {
            pending -= 8;
            out.push_back(static_cast<char>((bits >> pending) & 0xFFu));
        }
    }
    if ((bits & ((1u << pending) - 1u)) != 0) return std::nullopt;
    return out;
}

}  // namespace

std::optional<std::string> Base64UrlDecode(std::string_view text) { return DecodeUnpadded(text, true); }

std::optional<std::string> Base64Decode(std::string_view text) {
    std::string compact;
    compact.reserve(text.size());
    for (const char c : text) {
        if (c != ' ' && c != '\t' && c != '\r' && c != '\n') compact.push_back(c);
    }
    std::size_t padding = 0;
    while (padding < 2 && padding < compact.size() && compact[compact.size() - 1 - padding] == '=') ++padding;
    if (padding > 0 && compact.size() % 4 != 0) return std::nullopt;
    compact.resize(compact.size() - padding);
    return DecodeUnpadded(compact, false);
}

std::optional<CompactJws> SplitCompactJws(std::string_view token) {
    const std::size_t first = token.find('.');
    if (first == std::string_view::npos) return std::nullopt;
    const std::size_t second = token.find('.', first + 1);
    if (second == std::string_view::npos || token.find('.', second + 1) != std::string_view::npos) {
        return std::nullopt;
    }
    auto header = Base64UrlDecode(token.substr(0, first));
    auto payload = Base64UrlDecode(token.substr(first + 1, second - first - 1));
    auto signature = Base64UrlDecode(token.substr(second + 1));
    if (!header || !payload || !signature || header->empty() || payload->empty()) return std::nullopt;
    CompactJws jws;
    jws.signingInput = std::string(token.substr(0, second));
    jws.header = std::move(*header);
    jws.payload = std::move(*payload);
    jws.signature = std::move(*signature);
    return jws;
}

namespace {
constexpr std::pair<const char*, Algorithm> kAlgorithms[] = {
    {"RS256", Algorithm::RS256}, {"RS384", Algorithm::RS384}, {"PS256", Algorithm::PS256},
    {"ES256", Algorithm::ES256}, {"ES384", Algorithm::ES384},
};
}  // namespace

std::optional<Algorithm> ParseAlgorithm(std::string_view name) {
    for (const auto& [text, algorithm] : kAlgorithms) {
        if (name == text) return algorithm;
    }
    return std::nullopt;
}

const char* AlgorithmName(Algorithm algorithm) {
    for (const auto& [text, known] : kAlgorithms) {
        if (known == algorithm) return text;
    }
    return "?";
}

}  // namespace zep::jwt
