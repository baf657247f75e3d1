// Keys and compact tokens made once with the openssl command-line tool,
// independently of the module, so that the same vectors check both
// implementations of the signature checks (OpenSSL on Linux, CNG on
// Windows). The keys are public halves only; their private halves are gone.
//
//   openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 (1024 for kRsa1024Key)
//   openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 (P-384)
//   openssl dgst -sha256 -sign KEY [-sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest]
//
// ECDSA signatures are the raw r || s of JWS. Unless named otherwise a token
// is signed by the key of its algorithm (kTrustedRsaKey for RS*/PS256,
// kP256Key for ES256, kP384Key for ES384) over the claims kClaims. Times
// are judged against the tests' fake clock, 2026-11-21T10:15:30Z
// (1795256130).
#pragma once

namespace zep::testing::vectors {

inline constexpr char kClaims[] = R"({"sub":"device-7f3a"})";

// Public keys (PEM "PUBLIC KEY").
extern const char kTrustedRsaKey[];
extern const char kRsa1024Key[];
extern const char kP256Key[];
extern const char kP384Key[];
// kP256Key as the bare base64 of its DER, and with one byte after the key.
extern const char kP256KeyBareBase64[];
extern const char kP256KeyBareBase64WithAByteMore[];
// Good signatures.
extern const char kRs256[];
extern const char kPs256[];
extern const char kEs256[];
// Signed by a 2048-bit RSA key that no policy holds.
extern const char kRs256ByUnknownKey[];
// Signed by kRsa1024Key: too small to be trusted.
extern const char kRs256BySmallKey[];
// An ES384 signature (96 bytes) under an ES256 header.
extern const char kEs384LabelledEs256[];
// HS256 keyed with the PEM text of kTrustedRsaKey: the algorithm-confusion forgery.
extern const char kHs256KeyedWithThePublicKey[];
// An RS256 signature under the header {"alg":"none","alg":"RS256"}, claims {}.
extern const char kNoneThenRs256[];
// Claims {"exp":...} or {"nbf":...} around the time of the fake clock.
extern const char kExpiredASecondAgo[];
extern const char kExpiringNow[];
extern const char kExpiringInASecond[];
extern const char kNotValidForAnotherSecond[];
extern const char kEs256ExpiredASecondAgo[];
// Claims {"exp":2199999999}.
extern const char kExpiringIn2039[];
// RS256 provisioning tokens for the test device:
// {"sub":"LD-TEST01","purpose":"provision","exp":4102444800} (2100), by the
// trusted key and by the unknown key.
extern const char kProvisionToken[];
extern const char kProvisionTokenByUnknownKey[];

}  // namespace zep::testing::vectors
