// A provisioning token, as an unregistered device's backup holds it: its
// three parts, header and claims, the algorithm, the signature against a
// fixed set of keys (RSA 2048, EC P-256, EC P-384), and the validity period.
// The first byte picks the mode: odd examines the token with validation off,
// as a test device may be set up, which reaches the claims without a
// signature.
#include <memory>

#include "DiagnosticScanner/PlatformPolicy.h"
#include "FuzzSupport.h"
#include "platform/agent/AgentPolicies.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Jwt.h"

namespace {

class FixedKeys : public IConfigAgent {
public:
    PlatformPolicy GetPlatformPolicy() override {
        PlatformPolicy policy;
        policy.set_jws_pubkey({kRsa, kEc256, kEc384});
        return policy;
    }

private:
    static constexpr const wchar_t* kRsa =
        L"-----BEGIN PUBLIC KEY-----\n"
        L"MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKCAQEAqZTy00k5YJ3PLOa56izy\n"
        L"epuRJHs0O0rEeuj5+h+pE+GXk1p5mHGjVtCxbNg3StfIMIffWS2n5hB3fZ2DAG2w\n"
        L"XaqFhexGCVUk4AsgiDRBZWi9gMOhf3pbjDtn4PneS5GQrPC020HOykKPosgo4Bo2\n"
        L"P36zHJOZKOtISUpA8YEqcgTQZrLEZwpr8ZjZD72SyMq/uDObdGzpoZyQbeEOB4N3\n"
        L"GmU3Nz271dfsHiZHs+xK3KaVZE+L/1+IPscHKWsCvw+MDjycnbMAd52+35wv8Jg7\n"
        L"sZwyNTX7+zkosx4pARGN9KsAWBJ/2Zlp11GkWDPL8bhAxnKEJA9L8od1RT4xYcHc\n"
        L"dQIDAQAB\n"
        L"-----END PUBLIC KEY-----\n";
    static constexpr const wchar_t* kEc256 =
        L"-----BEGIN PUBLIC KEY-----\n"
        L"MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEigBrCz9halUYnQQ4UERopnqgDHdc\n"
        L"z2n3KRn6LZLilh7GVZuacaBvw8OBsolAG4YnKZTmKqKbkGX1m4MvKlty1Q==\n"
        L"-----END PUBLIC KEY-----\n";
    static constexpr const wchar_t* kEc384 =
        L"-----BEGIN PUBLIC KEY-----\n"
        L"MHYwEAYHKoZIzj0CAQYFK4EEACIDYgAE0TgvBGCmMacTyJyl16a9ZI0JlpFGB+hY\n"
        L"/iy3zm3iNG0K/4+tSWaGyQ69yHSAbBWOTvBkpnUeU0exqhKQFRk5vXF5zo7vyL5v\n"
        L"DTdRKju7DkKEIWQHHNNXsAnLSi/y1z6L\n"
        L"-----END PUBLIC KEY-----\n";
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::shared_ptr<IConfigAgent> keys = std::make_shared<FixedKeys>();
    if (size == 0) return 0;
    const bool skipValidation = (data[0] & 1) != 0;
    const std::string token(zep::fuzz::Bytes(data + 1, size - 1));

    std::string claims;
    if (CoreUtility::VerifyJWT(token, claims, keys, skipValidation)) {
        // Accepted claims are the token's own payload.
        const auto jws = zep::jwt::SplitCompactJws(token);
        ZEP_FUZZ_CHECK(jws && jws->payload == claims);
    }
    // The base64 of a key given without its PEM armour.
    static_cast<void>(zep::jwt::Base64Decode(token));
    return 0;
}
