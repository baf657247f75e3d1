// The agent's platform policy: its service addresses and TLS trust lists, as
// the platform shares it with the agent's modules.
#pragma once

#include <list>
#include <string>

#include "DiagnosticScanner/Export.h"

class DIAGSCANNER_API PlatformPolicy {
public:
    // Lists keep insertion order and duplicates.
    using TextList = std::list<std::wstring>;

    std::wstring config_pull_triggers() const;
    std::wstring enterprise_auth_baseuri() const;
    std::wstring consumer_auth_baseuri() const;
    const std::wstring& api_baseuri() const;
    const std::wstring& discover_uri() const;
    std::wstring mqtt_baseuri() const;
    const std::wstring& api_mtls_uri() const;
    const std::wstring& api_geo_baseuri() const;
    const std::wstring& mqtt_mtls_uri() const;
    std::wstring mqtt_chain_pem64() const;
    std::wstring device_auth_type() const;
    const TextList& jws_pubkey() const;
    const TextList& tls_rootca_thumbprint_list() const;
    const TextList& tls_leaf_cn_list() const;
    const TextList& device_subscription_list() const;
    bool allow_self_signed_cert() const;
    std::wstring get_platform_policy_url() const;

    // Each setter replaces the whole field.
    void set_config_pull_triggers(const std::wstring& value);
    void set_enterprise_auth_baseuri(const std::wstring& value);
    void set_consumer_auth_baseuri(const std::wstring& value);
    void set_api_baseuri(const std::wstring& value);
    void set_discover_uri(const std::wstring& value);
    void set_mqtt_baseuri(const std::wstring& value);
    void set_api_mtls_uri(const std::wstring& value);
    void set_api_geo_baseuri(const std::wstring& value);
    void set_mqtt_mtls_uri(const std::wstring& value);
    void set_mqtt_chain_pem64(const std::wstring& value);
    void set_device_auth_type(const std::wstring& value);
    void set_jws_pubkey(const TextList& value);
    void set_tls_rootca_thumbprint_list(const TextList& value);
    void set_tls_leaf_cn_list(const TextList& value);
    void set_device_subscription_list(const TextList& value);
    void set_allow_self_signed_cert(bool value);

private:
    // The fields in the platform's order, so that the module's copy of the
    // record has the platform's layout.
    std::wstring config_pull_triggers_;
    std::wstring enterprise_auth_baseuri_;
    std::wstring consumer_auth_baseuri_;
    std::wstring api_baseuri_;
    std::wstring discover_uri_;
    std::wstring mqtt_baseuri_;
    std::wstring api_mtls_uri_;
    std::wstring api_geo_baseuri_;
    std::wstring mqtt_mtls_uri_;
    std::wstring mqtt_chain_pem64_;
    std::wstring device_auth_type_;
    TextList jws_pubkey_;
    TextList tls_rootca_thumbprint_list_;
    TextList tls_leaf_cn_list_;
    TextList device_subscription_list_;
    bool allow_self_signed_cert_ = false;

protected:
    // Set by the platform when it loads the policy; modules only read it.
    std::wstring platform_policy_url_;
};
