#include "platform/device/PlatformPolicyFile.h"

#include <string>

#include <json/json.h>

#include "platform/util/JsonText.h"
#include "platform/util/Strings.h"

namespace zep::platform {
namespace {

// Each field is read on its own: a value of the wrong type leaves only that
// field empty, so one mistake in a hand-edited file costs one setting.
void SetText(const Json::Value& root, const char* key, void (PlatformPolicy::*set)(const std::wstring&),
             PlatformPolicy& policy) {
    const Json::Value& value = root[key];
    if (value.isString()) (policy.*set)(text::FromUtf8(value.asString()));
}

// A list with one element that is not a string is wrong as a whole: half a
// trust list is not what its author meant.
void SetList(const Json::Value& root, const char* key, void (PlatformPolicy::*set)(const PlatformPolicy::TextList&),
             PlatformPolicy& policy) {
    const Json::Value& value = root[key];
    if (!value.isArray()) return;
    PlatformPolicy::TextList list;
    for (const Json::Value& entry : value) {
        if (!entry.isString()) return;
        list.push_back(text::FromUtf8(entry.asString()));
    }
    (policy.*set)(list);
}

}  // namespace

PlatformPolicy ParsePlatformPolicy(std::string_view text) {
    PlatformPolicy policy;
    try {
        zep::json::ParseOptions options;
        options.stackLimit = 16;
        options.failIfExtra = true;
        const auto parsed = zep::json::ParseObject(text, options);
        if (!parsed) return policy;
        const Json::Value& root = *parsed;  // const: lookups must not add members

        SetText(root, "config_pull_triggers", &PlatformPolicy::set_config_pull_triggers, policy);
        SetText(root, "enterprise_auth_baseuri", &PlatformPolicy::set_enterprise_auth_baseuri, policy);
        SetText(root, "consumer_auth_baseuri", &PlatformPolicy::set_consumer_auth_baseuri, policy);
        SetText(root, "api_baseuri", &PlatformPolicy::set_api_baseuri, policy);
        SetText(root, "discover_uri", &PlatformPolicy::set_discover_uri, policy);
        SetText(root, "mqtt_baseuri", &PlatformPolicy::set_mqtt_baseuri, policy);
        SetText(root, "api_mtls_uri", &PlatformPolicy::set_api_mtls_uri, policy);
        SetText(root, "api_geo_baseuri", &PlatformPolicy::set_api_geo_baseuri, policy);
        SetText(root, "mqtt_mtls_uri", &PlatformPolicy::set_mqtt_mtls_uri, policy);
        SetText(root, "mqtt_chain_pem64", &PlatformPolicy::set_mqtt_chain_pem64, policy);
        SetText(root, "device_auth_type", &PlatformPolicy::set_device_auth_type, policy);
        SetList(root, "jws_pubkey", &PlatformPolicy::set_jws_pubkey, policy);
        SetList(root, "tls_rootca_thumbprint_list", &PlatformPolicy::set_tls_rootca_thumbprint_list, policy);
        SetList(root, "tls_leaf_cn_list", &PlatformPolicy::set_tls_leaf_cn_list, policy);
        SetList(root, "device_subscription_list", &PlatformPolicy::set_device_subscription_list, policy);
        const Json::Value& selfSigned = root["allow_self_signed_cert"];
        if (selfSigned.isBool()) policy.set_allow_self_signed_cert(selfSigned.asBool());
        return policy;
    } catch (...) {
        // JsonCpp throws past its nesting limit: a malformed file.
        return PlatformPolicy();
    }
}

}  // namespace zep::platform
