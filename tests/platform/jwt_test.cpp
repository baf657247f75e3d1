#include "platform/Jwt.h"

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "platform/CommonBase.h"
#include "platform/Strings.h"
#include "support/TestPlatform.h"

namespace {

using zep::jwt::Base64Decode;
using zep::jwt::Base64UrlDecode;
using zep::jwt::SplitCompactJws;

// ---- A small signer ---------------------------------------------------------

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;

Key Rsa(std::size_t bits) { return Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", bits)); }
Key Ec(const char* curve) { return Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve)); }

const unsigned char* Bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

std::string Base64(const std::string& bytes, bool url) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), Bytes(bytes), static_cast<int>(bytes.size()));
    out.resize(static_cast<std::size_t>(n));
    if (!url) return out;
    while (!out.empty() && out.back() == '=') out.pop_back();
    for (char& c : out) c = c == '+' ? '-' : c == '/' ? '_' : c;
    return out;
}
std::string B64u(const std::string& bytes) { return Base64(bytes, true); }

std::string Pem(EVP_PKEY* key) {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PUBKEY(bio, key);
    std::string pem;
    char buffer[1024];
    for (int n; (n = BIO_read(bio, buffer, sizeof buffer)) > 0;) pem.append(buffer, static_cast<std::size_t>(n));
    BIO_free(bio);
    return pem;
}

std::string Der(EVP_PKEY* key) {
    std::string der(static_cast<std::size_t>(i2d_PUBKEY(key, nullptr)), '\0');
    unsigned char* out = reinterpret_cast<unsigned char*>(der.data());
    i2d_PUBKEY(key, &out);
    return der;
}

// The JWS signature bytes: PKCS#1 v1.5 or PSS for RS/PS, raw r||s for ES.
std::string Sign(EVP_PKEY* key, const std::string& alg, const std::string& input) {
    const bool sha384 = alg == "RS384" || alg == "ES384";
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_PKEY_CTX* keyCtx = nullptr;
    EVP_DigestSignInit(ctx, &keyCtx, sha384 ? EVP_sha384() : EVP_sha256(), nullptr, key);
    if (alg == "PS256") {
        EVP_PKEY_CTX_set_rsa_padding(keyCtx, RSA_PKCS1_PSS_PADDING);
        EVP_PKEY_CTX_set_rsa_pss_saltlen(keyCtx, RSA_PSS_SALTLEN_DIGEST);
    }
    std::size_t length = 0;
    EVP_DigestSign(ctx, nullptr, &length, Bytes(input), input.size());
    std::string signature(length, '\0');
    EVP_DigestSign(ctx, reinterpret_cast<unsigned char*>(signature.data()), &length, Bytes(input), input.size());
    EVP_MD_CTX_free(ctx);
    signature.resize(length);
    if (alg[0] != 'E') return signature;

    const unsigned char* der = Bytes(signature);
    ECDSA_SIG* sig = d2i_ECDSA_SIG(nullptr, &der, static_cast<long>(signature.size()));
    const int half = sha384 ? 48 : 32;
    std::string raw(2 * static_cast<std::size_t>(half), '\0');
    auto* out = reinterpret_cast<unsigned char*>(raw.data());
    BN_bn2binpad(ECDSA_SIG_get0_r(sig), out, half);
    BN_bn2binpad(ECDSA_SIG_get0_s(sig), out + half, half);
    ECDSA_SIG_free(sig);
    return raw;
}

std::string SignedToken(EVP_PKEY* key, const std::string& alg, const std::string& header,
                        const std::string& payload) {
    const std::string input = B64u(header) + "." + B64u(payload);
    return input + "." + B64u(Sign(key, alg, input));
}
std::string Token(EVP_PKEY* key, const std::string& alg, const std::string& payload = R"({"sub":"device-7f3a"})") {
    return SignedToken(key, alg, R"({"alg":")" + alg + R"(","typ":"JWT"})", payload);
}

// Key generation is slow: each key is made once per run.
EVP_PKEY* RsaKey() {
    static const Key key = Rsa(2048);
    return key.get();
}
EVP_PKEY* StrangerKey() {  // never in the policy
    static const Key key = Rsa(2048);
    return key.get();
}
EVP_PKEY* EcKey() {
    static const Key key = Ec("P-256");
    return key.get();
}

// ---- Pure parts ---------------------------------------------------------------

TEST(JwtBase64Test, UrlDecodingAcceptsOnlyTheCanonicalUnpaddedUrlAlphabet) {
    EXPECT_EQ(Base64UrlDecode(""), "");
    EXPECT_EQ(Base64UrlDecode("Zg"), "f");
    EXPECT_EQ(Base64UrlDecode("Zm8"), "fo");
    EXPECT_EQ(Base64UrlDecode("Zm9v"), "foo");
    EXPECT_EQ(Base64UrlDecode("-_8"), "\xfb\xff");
    for (const char* bad : {"Zg==", "Zm8=", "+_8", "/_8", "Zm 9v", "Z", "Zm9vY", "Zh", "Zm9\xc3\xa9"}) {
        EXPECT_FALSE(Base64UrlDecode(bad)) << bad;
    }
    EXPECT_EQ(Base64Decode("Zm9v\r\nYmE="), "fooba");
    EXPECT_EQ(Base64Decode("+/8"), "\xfb\xff");
    EXPECT_FALSE(Base64Decode("-_8"));
    EXPECT_FALSE(Base64Decode("Zm9vY==="));
}

TEST(JwtSplitTest, NeedsExactlyThreePartsWithHeaderAndPayload) {
    const auto jws = SplitCompactJws("eyJ9.e30.");
    ASSERT_TRUE(jws);
    EXPECT_EQ(jws->signingInput, "eyJ9.e30");
    EXPECT_EQ(jws->header, "{\"}");
    EXPECT_EQ(jws->payload, "{}");
    EXPECT_EQ(jws->signature, "");
    for (const char* bad : {"abc", "a.b", "e30.e30", "e30.e30.e30.e30", ".e30.", "e30..", "e30.e30.Zg==", ".."}) {
        EXPECT_FALSE(SplitCompactJws(bad)) << bad;
    }
}

// ---- CoreUtility::VerifyJWT through the platform ------------------------------------

class JwtTest : public ::testing::Test {
protected:
    void SetUp() override { UseKeys({Pem(RsaKey()), Pem(EcKey())}); }

    void UseKeys(const std::vector<std::string>& keys) {
        PlatformPolicy::TextList list;
        for (const auto& key : keys) list.push_back(zep::text::FromUtf8(key));
        platform.policy->platformPolicy.set_jws_pubkey(list);
    }

    bool Verify(const std::string& token, bool skipValidation = false) {
        claims = "unchanged";
        return CoreUtility::VerifyJWT(token, claims, zep::AgentFactory::GetInstance()->GetConfigPolicyAgent(),
                                      skipValidation);
    }

    long long Now() const {
        const auto since = platform.clock->SystemNow().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::seconds>(since).count();
    }
    std::string WithExp(long long exp) const { return R"({"sub":"d","exp":)" + std::to_string(exp) + "}"; }

    zep::testing::TestPlatform platform;
    std::string claims;
};

TEST_F(JwtTest, GoodTokensOfEachAlgorithmPassAndGiveTheClaims) {
    const Key ec384 = Ec("P-384");
    UseKeys({Pem(RsaKey()), Pem(EcKey()), Pem(ec384.get())});
    const std::pair<EVP_PKEY*, const char*> cases[] = {
        {RsaKey(), "RS256"}, {RsaKey(), "RS384"}, {RsaKey(), "PS256"}, {EcKey(), "ES256"}, {ec384.get(), "ES384"}};
    for (const auto& [key, alg] : cases) {
        const std::string payload = std::string(R"({"sub":"device-7f3a","alg_used":")") + alg + "\"}";
        EXPECT_TRUE(Verify(Token(key, alg, payload))) << alg;
        EXPECT_EQ(claims, payload) << alg;
    }
}

TEST_F(JwtTest, KeysAreTriedInTurnAndMustFitTheAlgorithm) {
    std::string bareDer = Base64(Der(RsaKey()), false);
    bareDer.insert(64, "\n");
    UseKeys({"not a key", Pem(StrangerKey()), bareDer});
    EXPECT_TRUE(Verify(Token(RsaKey(), "RS256"))) << "the third key, bare base64 DER, matches";

    UseKeys({Pem(EcKey())});
    EXPECT_FALSE(Verify(Token(RsaKey(), "RS256"))) << "RS256 with only an EC key";
    const Key k256 = Ec("secp256k1");
    UseKeys({Pem(k256.get())});
    EXPECT_FALSE(Verify(Token(k256.get(), "ES256"))) << "ES256 needs P-256, not just any 256-bit curve";
    const Key small = Rsa(1024);
    UseKeys({Pem(small.get())});
    EXPECT_FALSE(Verify(Token(small.get(), "RS256"))) << "RSA below 2048 bits";
    UseKeys({});
    EXPECT_FALSE(Verify(Token(RsaKey(), "RS256"))) << "no keys";
    EXPECT_EQ(claims, "unchanged");

    UseKeys({Pem(RsaKey())});
    EXPECT_FALSE(CoreUtility::VerifyJWT(Token(RsaKey(), "RS256"), claims, nullptr, false)) << "no agent";
}

TEST_F(JwtTest, ForgedTokensAreRefusedAndLeaveTheClaimsAlone) {
    const std::string good = Token(RsaKey(), "RS256");
    const std::size_t dot1 = good.find('.'), dot2 = good.rfind('.');
    const std::string swappedPayload =
        good.substr(0, dot1 + 1) + B64u(R"({"sub":"device-0000"})") + good.substr(dot2);
    std::string es = Token(EcKey(), "ES256");
    es[es.size() - 5] = es[es.size() - 5] == 'A' ? 'B' : 'A';
    const std::string pem = Pem(RsaKey());
    const std::string hsInput = B64u(R"({"alg":"HS256"})") + "." + B64u(R"({"sub":"x"})");
    unsigned char mac[32];
    unsigned int macLength = 0;
    HMAC(EVP_sha256(), pem.data(), static_cast<int>(pem.size()), Bytes(hsInput), hsInput.size(), mac, &macLength);
    const std::string hmacWithPublicKey =
        hsInput + "." + B64u(std::string(reinterpret_cast<const char*>(mac), macLength));

    for (const std::string& forged : {swappedPayload, Token(StrangerKey(), "RS256"), es,
                                      good.substr(0, good.size() - 4), hmacWithPublicKey}) {
        EXPECT_FALSE(Verify(forged)) << forged;
        EXPECT_EQ(claims, "unchanged");
    }
}

TEST_F(JwtTest, UnsignedUnknownAndGarbledHeadersAreRefused) {
    const std::string body = B64u(R"({"sub":"x"})");
    const std::string rs256 = Token(RsaKey(), "RS256");
    const std::string rsaSignature = rs256.substr(rs256.rfind('.'));
    for (const char* header : {R"({"alg":"none"})", R"({"alg":"None"})", R"({"alg":"NONE"})"}) {
        EXPECT_FALSE(Verify(B64u(header) + "." + body + ".")) << header;
        EXPECT_FALSE(Verify(B64u(header) + "." + body + rsaSignature)) << header;
    }
    for (const char* header : {R"({"alg":"rs256"})", R"({"alg":"RS512"})", R"({"typ":"JWT"})", R"({"alg":256})",
                               R"({"alg":"RS256","crit":["exp"]})", R"({"alg":"none","alg":"RS256"})"}) {
        EXPECT_FALSE(Verify(SignedToken(RsaKey(), "RS256", header, R"({"sub":"x"})"))) << header;
    }
}

TEST_F(JwtTest, ExpiryAndNotBeforeAreCheckedAgainstThePlatformClock) {
    const long long now = Now();
    EXPECT_FALSE(Verify(Token(RsaKey(), "RS256", WithExp(now - 1))));
    EXPECT_FALSE(Verify(Token(RsaKey(), "RS256", WithExp(now)))) << "expiry at now";
    EXPECT_TRUE(Verify(Token(RsaKey(), "RS256", WithExp(now + 1))));
    EXPECT_FALSE(Verify(Token(RsaKey(), "RS256", R"({"exp":"tomorrow"})")));
    EXPECT_FALSE(Verify(Token(RsaKey(), "RS256", R"({"nbf":)" + std::to_string(now + 1) + "}")));
    EXPECT_TRUE(Verify(Token(RsaKey(), "RS256", R"({"nbf":)" + std::to_string(now) + "}")));

    // Far from the real time either way, so only the fake clock can give these answers.
    using std::chrono::system_clock;
    platform.clock->SetSystemTime(system_clock::from_time_t(2'200'000'000));  // 2039
    EXPECT_FALSE(Verify(Token(RsaKey(), "RS256", WithExp(2'199'999'999))));
    platform.clock->SetSystemTime(system_clock::from_time_t(1'000'000'000));  // 2001
    EXPECT_TRUE(Verify(Token(RsaKey(), "RS256", WithExp(1'000'000'001))));
}

TEST_F(JwtTest, SkippingValidationStillNeedsAWellFormedToken) {
    const std::string expired = WithExp(Now() - 100);
    EXPECT_TRUE(Verify(Token(StrangerKey(), "RS256", expired), true));
    EXPECT_EQ(claims, expired);
    claims.clear();
    EXPECT_TRUE(CoreUtility::VerifyJWT(Token(EcKey(), "ES256"), claims, nullptr, true));

    const std::string body = B64u("{}");
    for (const std::string& bad : {std::string("abc"), std::string("a.b"), B64u("not json") + "." + body + ".",
                                   B64u("{}") + "." + B64u("[1]") + ".", B64u("{}") + "." + body + ".Zg==",
                                   body + "." + body + "." + body + "." + body}) {
        EXPECT_FALSE(Verify(bad, true)) << bad;
        EXPECT_EQ(claims, "unchanged");
    }
}

TEST_F(JwtTest, GarbageNeverCrashes) {
    std::mt19937 random(7);
    std::string noise(300'000, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    EXPECT_FALSE(Verify(noise));
    EXPECT_FALSE(Verify(noise, true));
    const std::string alphabet = "ABCxyz019-_.";
    for (int round = 0; round < 200; ++round) {
        std::string token(random() % 400, 'A');
        for (char& c : token) c = alphabet[random() % alphabet.size()];
        Verify(token, round % 2 == 0);
    }
    const std::string nested = B64u(std::string(5000, '[') + std::string(5000, ']'));
    EXPECT_FALSE(Verify(B64u("{}") + "." + nested + ".", true));
}

TEST_F(JwtTest, TheTokenNeverReachesTheLog) {
    const std::string good = Token(RsaKey(), "RS256");
    const std::vector<std::string> tokens = {
        good, Token(EcKey(), "ES256", WithExp(Now() - 1)), Token(StrangerKey(), "RS256"),
        B64u(R"({"alg":"none"})") + "." + B64u(R"({"sub":"device-7f3a"})") + "."};
    for (const auto& token : tokens) {
        Verify(token);
        Verify(token, true);
    }
    Verify(good.substr(0, good.rfind('.')));

    const auto lines = platform.log->Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(platform.log->Contains("token refused: expired"));
    for (const auto& token : tokens) {
        const std::size_t dot1 = token.find('.'), dot2 = token.rfind('.');
        const std::string payload = token.substr(dot1 + 1, dot2 - dot1 - 1);
        const std::string signature = token.substr(dot2 + 1);
        for (const auto& line : lines) {
            EXPECT_EQ(line.find(payload), std::string::npos) << line;
            if (!signature.empty()) {
                EXPECT_EQ(line.find(signature), std::string::npos) << line;
            }
            EXPECT_EQ(line.find("device-7f3a"), std::string::npos) << line;
        }
    }
}

}  // namespace
