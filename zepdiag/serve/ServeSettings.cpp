#include "serve/ServeSettings.h"

#include <algorithm>

#include "platform/util/Jwt.h"
#include "platform/util/Strings.h"

namespace zepdiag::serve {
namespace {

std::vector<std::string> Utf8List(const PlatformPolicy::TextList& list) {
    std::vector<std::string> items;
    for (const auto& item : list) items.push_back(zep::text::ToUtf8(item));
    return items;
}

// The device id names the MQTT client and one level of its topic: no
// wildcard, level separator or control character may hide in it.
bool IsTopicLevel(const std::string& id) {
    return !id.empty() && std::none_of(id.begin(), id.end(), [](char c) {
        return c == '+' || c == '#' || c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    });
}

bool ResolveTls(const ServeOptions& options, const PlatformPolicy& policy, TlsPolicy& tls, std::string& error) {
    if (options.cert.empty() != options.key.empty()) {
        error = "--cert and --key go together";
        return false;
    }
    tls.caFile = options.ca;
    if (tls.caFile.empty() && !policy.mqtt_chain_pem64().empty()) {
        const std::optional<std::string> pem = zep::jwt::Base64Decode(zep::text::ToUtf8(policy.mqtt_chain_pem64()));
        if (!pem) {
            error = "the platform policy's mqtt_chain_pem64 is not base64";
            return false;
        }
        tls.caPem = *pem;
    }
    tls.certFile = options.cert;
    tls.keyFile = options.key;
    tls.rootThumbprints = Utf8List(policy.tls_rootca_thumbprint_list());
    tls.leafNames = Utf8List(policy.tls_leaf_cn_list());
    tls.allowSelfSigned = policy.allow_self_signed_cert();
    return true;
}

}  // namespace

std::optional<ServeSettings> ResolveServeSettings(const ServeOptions& options, const PlatformPolicy& policy,
                                                  const std::string& deviceId, std::string& error) {
    ServeSettings settings;
    if (!IsTopicLevel(deviceId)) {
        error = "the device has no usable deviceId (device.json): it names the MQTT client and topic";
        return std::nullopt;
    }
    settings.clientId = deviceId;
    settings.topic = "zep/" + deviceId + "/notifications";

    const std::string broker = options.broker.empty() ? zep::text::ToUtf8(policy.mqtt_baseuri()) : options.broker;
    if (broker.empty()) {
        error = "no broker: give --broker mqtt://HOST:PORT or set mqtt_baseuri in the platform policy";
        return std::nullopt;
    }
    const std::optional<Endpoint> endpoint = ParseBrokerUrl(broker, error);
    if (!endpoint) return std::nullopt;
    settings.broker = *endpoint;

    std::string upload = options.uploadUrl;
    if (upload.empty() && !policy.api_baseuri().empty()) upload = UploadUrlBelow(zep::text::ToUtf8(policy.api_baseuri()));
    if (!upload.empty()) {
        settings.uploads = ParseUploadUrl(upload, error);
        if (!settings.uploads) return std::nullopt;
        settings.uploadUrl = upload;
    }
    if (!ResolveTls(options, policy, settings.tls, error)) return std::nullopt;
    return settings;
}

}  // namespace zepdiag::serve
