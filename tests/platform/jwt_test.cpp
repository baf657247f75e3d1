// Fixed vectors check the system's own cryptography on every system (OpenSSL, CNG).
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/agent/CommonBase.h"
#include "platform/util/Jwt.h"
#include "platform/util/Strings.h"
#include "support/TestPlatform.h"
#include "support/TokenVectors.h"

namespace {

using namespace std::chrono_literals;
namespace vectors = zep::testing::vectors;
using zep::jwt::Algorithm;

// Base64url without padding: {"sub":"x"}, {"alg":"none"}.
constexpr const char* kSubX = "eyJzdWIiOiJ4In0";
constexpr const char* kAlgNone = "eyJhbGciOiJub25lIn0";

struct Signed {  // "header.payload" and the decoded signature
    std::string input;
    std::string signature;
};
Signed SplitToken(const std::string& token) {
    const std::size_t dot = token.rfind('.');
    return {token.substr(0, dot), zep::jwt::Base64UrlDecode(token.substr(dot + 1)).value_or("")};
}

TEST(VerifySignatureTest, AKeyVerifiesOnlyItsOwnAlgorithmAndAKeyIsOneKey) {
    const Signed rs = SplitToken(vectors::kRs256), ps = SplitToken(vectors::kPs256);
    const Signed es = SplitToken(vectors::kEs256);
    EXPECT_TRUE(zep::jwt::VerifySignature(Algorithm::ES256, es.input, es.signature, vectors::kP256Key));
    EXPECT_TRUE(zep::jwt::VerifySignature(Algorithm::ES256, es.input, es.signature, vectors::kP256KeyBareBase64));
    const struct {
        Algorithm algorithm;
        const Signed& token;
        const char* key;
        const char* why;
    } refused[] = {
        {Algorithm::ES256, es, vectors::kP384Key, "a P-384 key for ES256"},
        {Algorithm::RS256, rs, vectors::kP256Key, "an EC key for RS256"},
        {Algorithm::RS256, ps, vectors::kTrustedRsaKey, "a PSS signature checked as PKCS#1 v1.5"},
        {Algorithm::RS384, rs, vectors::kTrustedRsaKey, "SHA-256 checked as SHA-384"},
        {Algorithm::ES256, es, vectors::kP256KeyBareBase64WithAByteMore, "bytes after the key"},
        {Algorithm::ES256, es, "-----BEGIN PUBLIC KEY-----\n-----END PUBLIC KEY-----\n", "an empty block"},
        {Algorithm::ES256, es, "-----BEGIN CERTIFICATE-----\nMFkwEwYHKoZIzj0CAQYI\n-----END CERTIFICATE-----\n",
         "another kind of block"},
    };
    for (const auto& c : refused) {
        EXPECT_FALSE(zep::jwt::VerifySignature(c.algorithm, c.token.input, c.token.signature, c.key)) << c.why;
    }
}

class JwtTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The small RSA key is trusted too: it must be refused for its size.
        platform.policy->platformPolicy.set_jws_pubkey(
            {zep::text::FromUtf8(vectors::kTrustedRsaKey), zep::text::FromUtf8(vectors::kP256Key),
             zep::text::FromUtf8(vectors::kP384Key), zep::text::FromUtf8(vectors::kRsa1024Key)});
    }
    bool Verify(const std::string& token, bool skipValidation = false) {
        claims = "unchanged";
        return CoreUtility::VerifyJWT(token, claims, zep::AgentFactory::GetInstance()->GetConfigPolicyAgent(),
                                      skipValidation);
    }
    zep::testing::TestPlatform platform;
    std::string claims;
};

TEST_F(JwtTest, EveryAcceptedAlgorithmGivesTheClaimsAndForgedOrUnsignedTokensLeaveThemAlone) {
    for (const char* token : {vectors::kRs256, vectors::kPs256, vectors::kEs256}) {  // one per family
        EXPECT_TRUE(Verify(token)) << token;
        EXPECT_EQ(claims, vectors::kClaims);
    }
    const std::string good = vectors::kRs256;
    const std::string body = std::string(".") + kSubX;
    for (const std::string& forged : {
             good.substr(0, good.find('.')) + body + good.substr(good.rfind('.')),
             std::string(vectors::kRs256ByUnknownKey),
             std::string(vectors::kRs256BySmallKey),
             std::string(vectors::kHs256KeyedWithThePublicKey),
             std::string(vectors::kNoneThenRs256),
             std::string(vectors::kEs384LabelledEs256),
             kAlgNone + body + ".",
             kAlgNone + body + good.substr(good.rfind('.')),
         }) {
        EXPECT_FALSE(Verify(forged)) << forged;
        EXPECT_EQ(claims, "unchanged");
    }
}

TEST_F(JwtTest, ValidityIsJudgedByThePlatformClock) {
    EXPECT_FALSE(Verify(vectors::kExpiredASecondAgo));
    EXPECT_FALSE(Verify(vectors::kExpiringNow)) << "expiry at now";
    EXPECT_TRUE(Verify(vectors::kExpiringInASecond));
    EXPECT_FALSE(Verify(vectors::kNotValidForAnotherSecond));
    platform.clock->Advance(1s);
    EXPECT_TRUE(Verify(vectors::kNotValidForAnotherSecond));
    // Far from the real time, so only the fake clock can give this answer.
    platform.clock->SetSystemTime(std::chrono::system_clock::from_time_t(2'200'000'000));  // 2039
    EXPECT_FALSE(Verify(vectors::kExpiringIn2039));
}

TEST_F(JwtTest, TheTokenNeverReachesTheLog) {
    const std::vector<std::string> tokens = {vectors::kRs256, vectors::kEs256ExpiredASecondAgo,
                                             vectors::kRs256ByUnknownKey};
    for (const auto& token : tokens) {
        Verify(token);
        Verify(token, true);
    }
    EXPECT_TRUE(platform.log->Contains("token refused: expired"));
    for (const auto& token : tokens) {
        const std::size_t dot1 = token.find('.'), dot2 = token.rfind('.');
        for (const auto& line : platform.log->Lines()) {
            EXPECT_EQ(line.find(token.substr(dot1 + 1, dot2 - dot1 - 1)), std::string::npos) << line;
            EXPECT_EQ(line.find(token.substr(dot2 + 1)), std::string::npos) << line;
            EXPECT_EQ(line.find("device-7f3a"), std::string::npos) << line;
        }
    }
}

}  // namespace
