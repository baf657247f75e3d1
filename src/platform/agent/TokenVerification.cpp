// CoreUtility::VerifyJWT: the provisioning token's checks with the platform
// policy's keys and the platform's clock.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <string>

#include <json/json.h>

#include "platform/agent/CommonBase.h"
#include "platform/env/Env.h"
#include "platform/util/JsonText.h"
#include "platform/util/Jwt.h"
#include "platform/util/Strings.h"

namespace {

// A provisioning token is a few kilobytes; anything far larger is not one.
constexpr std::size_t kMaxTokenBytes = 256 * 1024;

// Strict: a duplicated "alg" or "exp" must not read one way here and another
// way in the service that issued the token.
std::optional<Json::Value> ParseObject(const std::string& text) {
    zep::json::ParseOptions options;
    options.strict = true;
    options.stackLimit = 32;
    return zep::json::ParseObject(text, options);
}

enum class TimeCheck { Ok, Malformed, Failed };

// "exp" must lie after now, "nbf" not after now; absent claims pass.
TimeCheck CheckTime(const Json::Value& claims, const char* name, double now, bool mustBeAfterNow) {
    if (!claims.isMember(name)) return TimeCheck::Ok;
    const Json::Value& value = claims[name];
    if (!value.isNumeric() || !std::isfinite(value.asDouble())) return TimeCheck::Malformed;
    const double at = value.asDouble();
    const bool ok = mustBeAfterNow ? at > now : at <= now;
    return ok ? TimeCheck::Ok : TimeCheck::Failed;
}

// The reason the token is refused, or null when it is accepted (`payload`
// then holds its claims). Reasons are fixed texts: nothing of the token may
// reach the log.
const char* Examine(const std::string& token, IConfigAgent* configAgent, bool skipValidation, std::string& payload) {
    if (token.size() > kMaxTokenBytes) return "too long";
    auto jws = zep::jwt::SplitCompactJws(token);
    if (!jws) return "not three base64url parts";
    const auto header = ParseObject(jws->header);
    if (!header) return "header is not a JSON object";
    const auto claims = ParseObject(jws->payload);
    if (!claims) return "payload is not a JSON object";

    if (skipValidation) {
        g_log.d(L"%s: JWT validation disabled: signature and validity period not checked", "CoreUtility::VerifyJWT");
        payload = std::move(jws->payload);
        return nullptr;
    }

    // Extensions we cannot honour must not be silently ignored.
    if (header->isMember("crit")) return "critical header extensions are not supported";
    const Json::Value& alg = (*header)["alg"];
    if (!alg.isString()) return "no algorithm";
    if (zep::text::EqualsIgnoreCase(zep::text::FromUtf8(alg.asString()), L"none")) return "unsigned token";
    const auto algorithm = zep::jwt::ParseAlgorithm(alg.asString());
    if (!algorithm) return "algorithm not accepted";

    if (configAgent == nullptr) return "no configuration agent";
    const PlatformPolicy policy = configAgent->GetPlatformPolicy();
    const auto& keys = policy.jws_pubkey();
    if (keys.empty()) return "no token-signing keys in the platform policy";
    const bool verified = std::any_of(keys.begin(), keys.end(), [&](const std::wstring& key) {
        return zep::jwt::VerifySignature(*algorithm, jws->signingInput, jws->signature, zep::text::ToUtf8(key));
    });
    if (!verified) return "signature does not verify with any token-signing key";

    // Claims are read only once the signature vouches for them.
    const auto sinceEpoch = zep::platform::CurrentEnv()->clock->SystemNow().time_since_epoch();
    const double now =
        static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count()) / 1000.0;
    switch (CheckTime(*claims, "exp", now, true)) {
        case TimeCheck::Malformed: return "\"exp\" is not a NumericDate";
        case TimeCheck::Failed: return "expired";
        case TimeCheck::Ok: break;
    }
    switch (CheckTime(*claims, "nbf", now, false)) {
        case TimeCheck::Malformed: return "\"nbf\" is not a NumericDate";
        case TimeCheck::Failed: return "not valid yet";
        case TimeCheck::Ok: break;
    }
    g_log.d(L"%s: token accepted (%s)", "CoreUtility::VerifyJWT", zep::jwt::AlgorithmName(*algorithm));
    payload = std::move(jws->payload);
    return nullptr;
}

}  // namespace

bool CoreUtility::VerifyJWT(const std::string& jwt, std::string& claims, std::shared_ptr<IConfigAgent> configAgent,
                            bool skipValidation) {
    const char* reason = "internal error";
    try {
        std::string payload;
        reason = Examine(jwt, configAgent.get(), skipValidation, payload);
        if (reason == nullptr) {
            claims = std::move(payload);
            return true;
        }
    } catch (...) {
        reason = "internal error";
    }
    g_log.d(L"%s: token refused: %s", "CoreUtility::VerifyJWT", reason);
    return false;
}
