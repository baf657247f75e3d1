#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "platform/agent/CommonBase.h"
#include "platform/util/Strings.h"
#include "support/TestPlatform.h"
#include "support/TokenSigner.h"

namespace {

using namespace std::chrono_literals;
using zep::testing::Base64Url;
using zep::testing::PublicKeyPem;
using zep::testing::TrustedKey;
using zep::testing::UnknownKey;

auto* Bytes(std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); }

EVP_PKEY* EcKey() {
    static const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), &EVP_PKEY_free);
    return key.get();
}

// RS256 for an RSA key; ES256 for an EC key, as raw r||s rather than OpenSSL's DER.
std::string Token(EVP_PKEY* key, const std::string& payload = R"({"sub":"device-7f3a"})", std::string header = "") {
    const bool ec = EVP_PKEY_base_id(key) == EVP_PKEY_EC;
    if (header.empty()) header = ec ? R"({"alg":"ES256"})" : R"({"alg":"RS256"})";
    std::string input = Base64Url(header) + "." + Base64Url(payload);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    std::size_t length = 0;
    EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key);
    EVP_DigestSign(ctx.get(), nullptr, &length, Bytes(input), input.size());
    std::string signature(length, '\0');
    EVP_DigestSign(ctx.get(), Bytes(signature), &length, Bytes(input), input.size());
    if (ec) {
        const unsigned char* der = Bytes(signature);
        ECDSA_SIG* sig = d2i_ECDSA_SIG(nullptr, &der, static_cast<long>(length));
        length = 64;
        BN_bn2binpad(ECDSA_SIG_get0_r(sig), Bytes(signature), 32);
        BN_bn2binpad(ECDSA_SIG_get0_s(sig), Bytes(signature) + 32, 32);
        ECDSA_SIG_free(sig);
    }
    return input + "." + Base64Url(signature.substr(0, length));
}

class JwtTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform.policy->platformPolicy.set_jws_pubkey(
            {zep::text::FromUtf8(PublicKeyPem(TrustedKey())), zep::text::FromUtf8(PublicKeyPem(EcKey()))});
    }
    bool Verify(const std::string& token, bool skipValidation = false) {
        claims = "unchanged";
        return CoreUtility::VerifyJWT(token, claims, zep::AgentFactory::GetInstance()->GetConfigPolicyAgent(),
                                      skipValidation);
    }
    std::string WithExp(std::chrono::seconds fromNow) const {
        const auto now = std::chrono::floor<std::chrono::seconds>(platform.clock->SystemNow().time_since_epoch());
        return R"({"exp":)" + std::to_string((now + fromNow).count()) + "}";
    }
    zep::testing::TestPlatform platform;
    std::string claims;
};

TEST_F(JwtTest, GoodRs256AndEs256TokensPassAndGiveTheClaims) {
    for (EVP_PKEY* key : {TrustedKey(), EcKey()}) {
        EXPECT_TRUE(Verify(Token(key)));
        EXPECT_EQ(claims, R"({"sub":"device-7f3a"})");
    }
}

TEST_F(JwtTest, ForgedAndUnsignedTokensAreRefusedAndLeaveTheClaimsAlone) {
    const std::string good = Token(TrustedKey());
    const std::string signature = good.substr(good.rfind('.'));
    std::string es = Token(EcKey());
    es[es.size() - 5] = es[es.size() - 5] == 'A' ? 'B' : 'A';
    // HS256 keyed with the public key: the classic algorithm-confusion forgery.
    std::string pem = PublicKeyPem(TrustedKey()), hs = Base64Url(R"({"alg":"HS256"})") + "." + Base64Url("{}");
    std::string mac(32, '\0');
    HMAC(EVP_sha256(), pem.data(), static_cast<int>(pem.size()), Bytes(hs), hs.size(), Bytes(mac), nullptr);
    const std::string body = "." + Base64Url(R"({"sub":"x"})");
    for (const std::string& forged :
         {good.substr(0, good.find('.')) + body + signature, Token(UnknownKey()), es, good.substr(0, good.size() - 4),
          hs + "." + Base64Url(mac), Base64Url(R"({"alg":"none"})") + body + ".",
          Base64Url(R"({"alg":"NONE"})") + body + ".", Base64Url(R"({"alg":"none"})") + body + signature,
          Token(TrustedKey(), "{}", R"({"alg":"none","alg":"RS256"})")}) {
        EXPECT_FALSE(Verify(forged)) << forged;
        EXPECT_EQ(claims, "unchanged");
    }
}

TEST_F(JwtTest, ExpiryIsCheckedAgainstThePlatformClock) {
    EXPECT_FALSE(Verify(Token(TrustedKey(), WithExp(-1s))));
    EXPECT_FALSE(Verify(Token(TrustedKey(), WithExp(0s)))) << "expiry at now";
    EXPECT_TRUE(Verify(Token(TrustedKey(), WithExp(1s))));
    // Far from the real time, so only the fake clock can give this answer.
    platform.clock->SetSystemTime(std::chrono::system_clock::from_time_t(2'200'000'000));  // 2039
    EXPECT_FALSE(Verify(Token(TrustedKey(), R"({"exp":2199999999})")));
}

TEST_F(JwtTest, SkippingValidationStillNeedsAWellFormedToken) {
    EXPECT_TRUE(Verify(Token(UnknownKey(), WithExp(-100s)), true));
    EXPECT_EQ(claims, WithExp(-100s));
    const std::string body = Base64Url("{}");
    for (const std::string& bad : {std::string("a.b"), Base64Url("not json") + "." + body + ".",
                                   body + "." + Base64Url("[1]") + ".", body + "." + body + ".Zg==",
                                   body + "." + body + "." + body + "." + body}) {
        EXPECT_FALSE(Verify(bad, true)) << bad;
        EXPECT_EQ(claims, "unchanged");
    }
}

TEST_F(JwtTest, TheTokenNeverReachesTheLog) {
    const std::vector<std::string> tokens = {Token(TrustedKey()), Token(EcKey(), WithExp(-1s)), Token(UnknownKey())};
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
