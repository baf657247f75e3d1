// Keys and RS256 tokens made with OpenSSL independently of the module, for
// the tests of provisioning-token uploads.
#pragma once

#include <openssl/evp.h>

#include <string>

namespace zep::testing {

// Two fixed 2048-bit RSA keys (generating keys is slow, so they are made once).
EVP_PKEY* TrustedKey();
EVP_PKEY* UnknownKey();
// The key's public half as a PEM "PUBLIC KEY" block.
std::string PublicKeyPem(EVP_PKEY* key);
// Unpadded base64url.
std::string Base64Url(const std::string& bytes);
// A compact RS256 token for the test device, expiring at `exp` (seconds since 1970).
std::string SignToken(EVP_PKEY* key, long long exp);

inline constexpr long long kYear2100 = 4102444800;

}  // namespace zep::testing
