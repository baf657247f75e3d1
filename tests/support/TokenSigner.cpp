#include "support/TokenSigner.h"

#include <openssl/pem.h>

#include <memory>
#include <stdexcept>

namespace zep::testing {
namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

Pkey NewRsaKey() {
    Pkey key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(2048)));
    if (!key) throw std::runtime_error("RSA key generation failed");
    return key;
}

}  // namespace

EVP_PKEY* TrustedKey() {
    static const Pkey key = NewRsaKey();
    return key.get();
}
EVP_PKEY* UnknownKey() {
    static const Pkey key = NewRsaKey();
    return key.get();
}

std::string PublicKeyPem(EVP_PKEY* key) {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
    if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) != 1) throw std::runtime_error("PEM export failed");
    std::string pem(BIO_ctrl_pending(bio.get()), '\0');
    if (BIO_read(bio.get(), pem.data(), static_cast<int>(pem.size())) != static_cast<int>(pem.size())) {
        throw std::runtime_error("PEM read failed");
    }
    return pem;
}

std::string Base64Url(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    while (!text.empty() && text.back() == '=') text.pop_back();
    for (char& c : text) c = c == '+' ? '-' : c == '/' ? '_' : c;
    return text;
}

// A compact RS256 token expiring at `exp` (seconds since 1970).
std::string SignToken(EVP_PKEY* key, long long exp) {
    const std::string signingInput =
        Base64Url(R"({"alg":"RS256","typ":"JWT"})") + "." +
        Base64Url(R"({"sub":"LD-TEST01","purpose":"provision","exp":)" + std::to_string(exp) + "}");
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    std::size_t length = 0;
    if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) != 1 ||
        EVP_DigestSign(ctx.get(), nullptr, &length, reinterpret_cast<const unsigned char*>(signingInput.data()),
                       signingInput.size()) != 1) {
        throw std::runtime_error("signing failed");
    }
    std::string signature(length, '\0');
    if (EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       reinterpret_cast<const unsigned char*>(signingInput.data()), signingInput.size()) != 1) {
        throw std::runtime_error("signing failed");
    }
    signature.resize(length);
    return signingInput + "." + Base64Url(signature);
}

}  // namespace zep::testing
