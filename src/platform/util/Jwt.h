// Compact JSON web signatures: strict base64url, splitting a token, and
// checking a signature with a public key (the last with the system's own
// cryptography, see Crypto.h). CoreUtility::VerifyJWT combines them with the
// platform policy's keys and clock.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "DiagnosticScanner/Export.h"

namespace zep::jwt {

// Base64url without padding. Anything else is refused (nullopt): '=', '+',
// '/', whitespace, a length of 4n+1, or non-zero unused bits in the last
// character, so that each byte string has exactly one accepted spelling.
std::optional<std::string> Base64UrlDecode(std::string_view text);

// Standard base64 ('+', '/', optional '=' padding), whitespace ignored: the
// body of a public key given without its PEM armour. Exported for the hosts,
// which read base64 from the platform policy too.
DIAGSCANNER_API std::optional<std::string> Base64Decode(std::string_view text);

// A token "header.payload.signature": the encoded parts as they were signed,
// and their decoded bytes.
struct CompactJws {
    std::string signingInput;  // "header.payload", the bytes the signature covers
    std::string header;
    std::string payload;
    std::string signature;  // empty for an unsigned token
};

// Exactly three base64url parts; the header and payload must not be empty.
std::optional<CompactJws> SplitCompactJws(std::string_view token);

enum class Algorithm { RS256, RS384, PS256, ES256, ES384 };

// The JWS name of an algorithm this module verifies, matched exactly (names
// are case-sensitive, so "none" in any spelling is not one of them).
std::optional<Algorithm> ParseAlgorithm(std::string_view name);
const char* AlgorithmName(Algorithm algorithm);

// True when `signature` is a valid `algorithm` signature of `signingInput`
// made with the private half of `publicKey`: a PEM "PUBLIC KEY" or the bare
// base64 of a DER SubjectPublicKeyInfo. A key that does not fit the algorithm
// (an EC key for RS256, a P-384 key for ES256, RSA below 2048 bits) verifies
// nothing. Leaves OpenSSL's error queue empty.
bool VerifySignature(Algorithm algorithm, std::string_view signingInput, std::string_view signature,
                     std::string_view publicKey);

}  // namespace zep::jwt
