// Windows' own cryptography (CNG) for SHA-256 and the signature checks of
// provisioning tokens: no other crypto library ships with the module here.
#include "platform/windows/Win32.h"

#include <bcrypt.h>
#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/util/Crypto.h"
#include "platform/util/Jwt.h"

namespace zep::crypto {
namespace {

// One provider per algorithm for the process: opening one is the costly step.
BCRYPT_ALG_HANDLE Provider(const wchar_t* algorithm) {
    const auto open = [](const wchar_t* name) {
        BCRYPT_ALG_HANDLE handle = nullptr;
        return BCRYPT_SUCCESS(::BCryptOpenAlgorithmProvider(&handle, name, nullptr, 0)) ? handle : nullptr;
    };
    if (std::wcscmp(algorithm, BCRYPT_SHA384_ALGORITHM) == 0) {
        static const BCRYPT_ALG_HANDLE sha384 = open(BCRYPT_SHA384_ALGORITHM);
        return sha384;
    }
    static const BCRYPT_ALG_HANDLE sha256 = open(BCRYPT_SHA256_ALGORITHM);
    return sha256;
}

struct HashFree {
    void operator()(void* hash) const { ::BCryptDestroyHash(hash); }
};
using HashPtr = std::unique_ptr<void, HashFree>;

HashPtr NewHash(const wchar_t* algorithm) {
    BCRYPT_HASH_HANDLE hash = nullptr;
    const BCRYPT_ALG_HANDLE provider = Provider(algorithm);
    if (provider == nullptr || !BCRYPT_SUCCESS(::BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0))) {
        return nullptr;
    }
    return HashPtr(hash);
}

bool HashData(void* hash, std::string_view data) {
    while (!data.empty()) {
        const auto chunk = static_cast<ULONG>(std::min<std::size_t>(data.size(), 1u << 30));
        auto* bytes = reinterpret_cast<PUCHAR>(const_cast<char*>(data.data()));
        if (!BCRYPT_SUCCESS(::BCryptHashData(hash, bytes, chunk, 0))) return false;
        data.remove_prefix(chunk);
    }
    return true;
}

std::optional<std::vector<UCHAR>> Finish(void* hash, ULONG length) {
    std::vector<UCHAR> digest(length);
    if (!BCRYPT_SUCCESS(::BCryptFinishHash(hash, digest.data(), length, 0))) return std::nullopt;
    return digest;
}

std::string Hex(const std::vector<UCHAR>& bytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const UCHAR b : bytes) {
        hex.push_back(kHex[b >> 4]);
        hex.push_back(kHex[b & 0x0F]);
    }
    return hex;
}

}  // namespace

struct Sha256::State {
    HashPtr hash = NewHash(BCRYPT_SHA256_ALGORITHM);
    bool ok = hash != nullptr;
};

Sha256::Sha256() : state_(std::make_unique<State>()) {}
Sha256::~Sha256() = default;

void Sha256::Update(std::string_view data) {
    if (state_->ok) state_->ok = HashData(state_->hash.get(), data);
}

std::string Sha256::FinalHex() {
    const auto digest = state_->ok ? Finish(state_->hash.get(), 32) : std::nullopt;
    state_->ok = false;
    return digest ? Hex(*digest) : std::string();
}

std::string Sha256Hex(std::string_view data) {
    Sha256 hash;
    hash.Update(data);
    return hash.FinalHex();
}

}  // namespace zep::crypto

namespace zep::jwt {
namespace {

// The curves' object identifiers as DER, the way SubjectPublicKeyInfo
// carries them in the EC algorithm's parameters.
constexpr unsigned char kP256[] = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};
constexpr unsigned char kP384[] = {0x06, 0x05, 0x2B, 0x81, 0x04, 0x00, 0x22};

struct LocalFree {
    void operator()(void* memory) const { ::LocalFree(memory); }
};
struct KeyFree {
    void operator()(void* key) const { ::BCryptDestroyKey(key); }
};
using KeyPtr = std::unique_ptr<void, KeyFree>;

// The DER of a public key: the body of a PEM "PUBLIC KEY" block, or the
// whole text as base64.
std::optional<std::string> KeyDer(std::string_view text) {
    constexpr std::string_view kBegin = "-----BEGIN PUBLIC KEY-----";
    constexpr std::string_view kEnd = "-----END PUBLIC KEY-----";
    if (text.find("-----BEGIN") != std::string_view::npos) {
        const std::size_t begin = text.find(kBegin);
        const std::size_t end = begin == std::string_view::npos ? begin : text.find(kEnd, begin);
        if (end == std::string_view::npos) return std::nullopt;
        text = text.substr(begin + kBegin.size(), end - begin - kBegin.size());
    }
    return Base64Decode(text);
}

// True when `der` is exactly one DER SEQUENCE: bytes after the key mean the
// text was not one key.
bool IsOneSequence(const std::string& der) {
    if (der.size() < 2 || static_cast<unsigned char>(der[0]) != 0x30) return false;
    const auto first = static_cast<unsigned char>(der[1]);
    std::size_t header = 2;
    std::size_t length = first;
    if (first & 0x80) {
        const std::size_t count = first & 0x7F;
        if (count == 0 || count > 4 || der.size() < 2 + count) return false;
        length = 0;
        for (std::size_t i = 0; i < count; ++i) length = (length << 8) | static_cast<unsigned char>(der[2 + i]);
        header += count;
    }
    return header + length == der.size();
}

bool ParametersAre(const CERT_PUBLIC_KEY_INFO& info, const unsigned char* oid, std::size_t size) {
    const CRYPT_OBJID_BLOB& parameters = info.Algorithm.Parameters;
    return parameters.cbData == size && std::memcmp(parameters.pbData, oid, size) == 0;
}

// A key that fits the algorithm: RSA (rsaEncryption) of 2048 bits or more
// for RS256, RS384 and PS256; EC on P-256 for ES256, on P-384 for ES384.
KeyPtr LoadKey(Algorithm algorithm, std::string_view text) {
    const auto der = KeyDer(text);
    if (!der || !IsOneSequence(*der) || der->size() > 64 * 1024) return nullptr;
    CERT_PUBLIC_KEY_INFO* decoded = nullptr;
    DWORD size = 0;
    if (!::CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, reinterpret_cast<const BYTE*>(der->data()),
                               static_cast<DWORD>(der->size()), CRYPT_DECODE_ALLOC_FLAG, nullptr, &decoded, &size)) {
        return nullptr;
    }
    const std::unique_ptr<CERT_PUBLIC_KEY_INFO, LocalFree> info(decoded);
    const std::string_view oid = info->Algorithm.pszObjId != nullptr ? info->Algorithm.pszObjId : "";
    bool fits = false;
    switch (algorithm) {
        case Algorithm::RS256:
        case Algorithm::RS384:
        case Algorithm::PS256: fits = oid == szOID_RSA_RSA; break;
        case Algorithm::ES256: fits = oid == szOID_ECC_PUBLIC_KEY && ParametersAre(*info, kP256, sizeof kP256); break;
        case Algorithm::ES384: fits = oid == szOID_ECC_PUBLIC_KEY && ParametersAre(*info, kP384, sizeof kP384); break;
    }
    // Measured on the key as encoded, before CNG sees it.
    if (fits && oid == szOID_RSA_RSA && ::CertGetPublicKeyLength(X509_ASN_ENCODING, info.get()) < 2048) fits = false;
    BCRYPT_KEY_HANDLE key = nullptr;
    if (!fits || !::CryptImportPublicKeyInfoEx2(X509_ASN_ENCODING, info.get(), 0, nullptr, &key)) return nullptr;
    KeyPtr owned(key);
    return owned;
}

}  // namespace

bool VerifySignature(Algorithm algorithm, std::string_view signingInput, std::string_view signature,
                     std::string_view publicKey) {
    try {
        const KeyPtr key = LoadKey(algorithm, publicKey);
        if (!key) return false;
        const bool wide = algorithm == Algorithm::RS384 || algorithm == Algorithm::ES384;
        const wchar_t* hashName = wide ? BCRYPT_SHA384_ALGORITHM : BCRYPT_SHA256_ALGORITHM;
        const crypto::HashPtr hash = crypto::NewHash(hashName);
        if (!hash || !crypto::HashData(hash.get(), signingInput)) return false;
        auto digest = crypto::Finish(hash.get(), wide ? 48 : 32);
        if (!digest) return false;

        // JWS carries an ECDSA signature as the fixed-width r || s, which is
        // what CNG verifies; anything of another length is no signature.
        if ((algorithm == Algorithm::ES256 && signature.size() != 64) ||
            (algorithm == Algorithm::ES384 && signature.size() != 96) || signature.size() > 64 * 1024) {
            return false;
        }
        std::vector<UCHAR> bytes(signature.begin(), signature.end());
        BCRYPT_PKCS1_PADDING_INFO pkcs1{hashName};
        BCRYPT_PSS_PADDING_INFO pss{hashName, 32};  // the salt is as long as the digest
        void* padding = nullptr;
        ULONG flags = 0;
        if (algorithm == Algorithm::RS256 || algorithm == Algorithm::RS384) {
            padding = &pkcs1;
            flags = BCRYPT_PAD_PKCS1;
        } else if (algorithm == Algorithm::PS256) {
            padding = &pss;
            flags = BCRYPT_PAD_PSS;
        }
        return BCRYPT_SUCCESS(::BCryptVerifySignature(key.get(), padding, digest->data(),
                                                      static_cast<ULONG>(digest->size()), bytes.data(),
                                                      static_cast<ULONG>(bytes.size()), flags));
    } catch (...) {
        return false;
    }
}

}  // namespace zep::jwt
