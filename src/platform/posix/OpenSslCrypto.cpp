// The OpenSSL side of the module's cryptography: SHA-256 and the signature
// checks of provisioning tokens.
#include "platform/util/Crypto.h"
#include "platform/util/Jwt.h"

#include <climits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace zep::jwt {
namespace {

const unsigned char* Bytes(std::string_view text) { return reinterpret_cast<const unsigned char*>(text.data()); }

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
struct EcdsaSigFree {
    void operator()(ECDSA_SIG* sig) const { ECDSA_SIG_free(sig); }
};
struct BnFree {
    void operator()(BIGNUM* bn) const { BN_free(bn); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

// Failed parses and verifications leave entries in OpenSSL's thread-local
// error queue; the next unrelated caller would otherwise read them as its own.
struct ClearErrorsOnExit {
    ~ClearErrorsOnExit() { ERR_clear_error(); }
};

KeyPtr LoadPublicKey(std::string_view text) {
    if (text.size() > INT_MAX) return nullptr;
    if (text.find("-----BEGIN") != std::string_view::npos) {
        const std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
        if (!bio) return nullptr;
        return KeyPtr(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    }
    const auto der = Base64Decode(text);
    if (!der || der->empty()) return nullptr;
    const unsigned char* cursor = Bytes(*der);
    KeyPtr key(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(der->size())));
    // Bytes after the key mean the text was not one key.
    if (key && cursor != Bytes(*der) + der->size()) return nullptr;
    return key;
}

bool IsCurve(EVP_PKEY* key, int nid) {
    if (EVP_PKEY_is_a(key, "EC") != 1) return false;
    char name[64] = {};
    std::size_t length = 0;
    if (EVP_PKEY_get_group_name(key, name, sizeof name, &length) != 1) return false;
    return OBJ_txt2nid(name) == nid;
}

bool IsRsa(EVP_PKEY* key, bool allowPssKey) {
    const bool rsa = EVP_PKEY_is_a(key, "RSA") == 1 || (allowPssKey && EVP_PKEY_is_a(key, "RSA-PSS") == 1);
    return rsa && EVP_PKEY_get_bits(key) >= 2048;
}

bool KeyFits(Algorithm algorithm, EVP_PKEY* key) {
    switch (algorithm) {
        case Algorithm::RS256:
        case Algorithm::RS384: return IsRsa(key, false);
        case Algorithm::PS256: return IsRsa(key, true);
        case Algorithm::ES256: return IsCurve(key, NID_X9_62_prime256v1);
        case Algorithm::ES384: return IsCurve(key, NID_secp384r1);
    }
    return false;
}

const EVP_MD* DigestOf(Algorithm algorithm) {
    switch (algorithm) {
        case Algorithm::RS384:
        case Algorithm::ES384: return EVP_sha384();
        default: return EVP_sha256();
    }
}

// JWS carries an ECDSA signature as the fixed-width big-endian r || s;
// OpenSSL verifies the DER SEQUENCE of the two integers.
std::optional<std::vector<unsigned char>> EcdsaRawToDer(std::string_view raw, std::size_t half) {
    if (raw.size() != 2 * half) return std::nullopt;
    std::unique_ptr<BIGNUM, BnFree> r(BN_bin2bn(Bytes(raw), static_cast<int>(half), nullptr));
    std::unique_ptr<BIGNUM, BnFree> s(BN_bin2bn(Bytes(raw) + half, static_cast<int>(half), nullptr));
    const std::unique_ptr<ECDSA_SIG, EcdsaSigFree> sig(ECDSA_SIG_new());
    if (!r || !s || !sig || ECDSA_SIG_set0(sig.get(), r.get(), s.get()) != 1) return std::nullopt;
    r.release();  // owned by sig now
    s.release();
    const int length = i2d_ECDSA_SIG(sig.get(), nullptr);
    if (length <= 0) return std::nullopt;
    std::vector<unsigned char> der(static_cast<std::size_t>(length));
    unsigned char* out = der.data();
    if (i2d_ECDSA_SIG(sig.get(), &out) != length) return std::nullopt;
    return der;
}


}  // namespace

bool VerifySignature(Algorithm algorithm, std::string_view signingInput, std::string_view signature,
                     std::string_view publicKey) {
    const ClearErrorsOnExit clearErrors;
    const KeyPtr key = LoadPublicKey(publicKey);
    if (!key || !KeyFits(algorithm, key.get())) return false;

    std::vector<unsigned char> der;
    std::string_view toVerify = signature;
    if (algorithm == Algorithm::ES256 || algorithm == Algorithm::ES384) {
        auto converted = EcdsaRawToDer(signature, algorithm == Algorithm::ES256 ? 32 : 48);
        if (!converted) return false;
        der = std::move(*converted);
        toVerify = std::string_view(reinterpret_cast<const char*>(der.data()), der.size());
    }

    const std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    EVP_PKEY_CTX* keyCtx = nullptr;
    if (!ctx || EVP_DigestVerifyInit(ctx.get(), &keyCtx, DigestOf(algorithm), nullptr, key.get()) != 1) return false;
    if (algorithm == Algorithm::PS256 &&
        (EVP_PKEY_CTX_set_rsa_padding(keyCtx, RSA_PKCS1_PSS_PADDING) <= 0 ||
         EVP_PKEY_CTX_set_rsa_pss_saltlen(keyCtx, RSA_PSS_SALTLEN_DIGEST) <= 0)) {
        return false;
    }
    return EVP_DigestVerify(ctx.get(), Bytes(toVerify), toVerify.size(), Bytes(signingInput), signingInput.size()) ==
           1;
}

}  // namespace zep::jwt

namespace zep::crypto {
namespace {

std::string Hex(const unsigned char* bytes, unsigned int length) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(length * 2u);
    for (unsigned int i = 0; i < length; ++i) {
        hex.push_back(kHex[bytes[i] >> 4]);
        hex.push_back(kHex[bytes[i] & 0x0F]);
    }
    return hex;
}

}  // namespace

struct Sha256::State {
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> ctx{EVP_MD_CTX_new()};
    bool ok = ctx && EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) == 1;
};

Sha256::Sha256() : state_(std::make_unique<State>()) {}
Sha256::~Sha256() = default;

void Sha256::Update(std::string_view data) {
    if (state_->ok && !data.empty()) state_->ok = EVP_DigestUpdate(state_->ctx.get(), data.data(), data.size()) == 1;
}

std::string Sha256::FinalHex() {
    unsigned char raw[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const bool ok = state_->ok && EVP_DigestFinal_ex(state_->ctx.get(), raw, &length) == 1;
    state_->ok = false;
    return ok ? Hex(raw, length) : std::string();
}

std::string Sha256Hex(std::string_view data) {
    Sha256 hash;
    hash.Update(data);
    return hash.FinalHex();
}

}  // namespace zep::crypto
