#include "DiagnosticScanner/PlatformPolicy.h"

// Out of line so that the members are exported with the record.

std::wstring PlatformPolicy::config_pull_triggers() const { return config_pull_triggers_; }
std::wstring PlatformPolicy::enterprise_auth_baseuri() const { return enterprise_auth_baseuri_; }
std::wstring PlatformPolicy::consumer_auth_baseuri() const { return consumer_auth_baseuri_; }
const std::wstring& PlatformPolicy::api_baseuri() const { return api_baseuri_; }
const std::wstring& PlatformPolicy::discover_uri() const { return discover_uri_; }
std::wstring PlatformPolicy::mqtt_baseuri() const { return mqtt_baseuri_; }
const std::wstring& PlatformPolicy::api_mtls_uri() const { return api_mtls_uri_; }
const std::wstring& PlatformPolicy::api_geo_baseuri() const { return api_geo_baseuri_; }
const std::wstring& PlatformPolicy::mqtt_mtls_uri() const { return mqtt_mtls_uri_; }
std::wstring PlatformPolicy::mqtt_chain_pem64() const { return mqtt_chain_pem64_; }
std::wstring PlatformPolicy::device_auth_type() const { return device_auth_type_; }
const PlatformPolicy::TextList& PlatformPolicy::jws_pubkey() const { return jws_pubkey_; }
const PlatformPolicy::TextList& PlatformPolicy::tls_rootca_thumbprint_list() const { return tls_rootca_thumbprint_list_; }
const PlatformPolicy::TextList& PlatformPolicy::tls_leaf_cn_list() const { return tls_leaf_cn_list_; }
const PlatformPolicy::TextList& PlatformPolicy::device_subscription_list() const { return device_subscription_list_; }
bool PlatformPolicy::allow_self_signed_cert() const { return allow_self_signed_cert_; }
std::wstring PlatformPolicy::get_platform_policy_url() const { return platform_policy_url_; }

void PlatformPolicy::set_config_pull_triggers(const std::wstring& value) { config_pull_triggers_ = value; }
void PlatformPolicy::set_enterprise_auth_baseuri(const std::wstring& value) { enterprise_auth_baseuri_ = value; }
void PlatformPolicy::set_consumer_auth_baseuri(const std::wstring& value) { consumer_auth_baseuri_ = value; }
void PlatformPolicy::set_api_baseuri(const std::wstring& value) { api_baseuri_ = value; }
void PlatformPolicy::set_discover_uri(const std::wstring& value) { discover_uri_ = value; }
void PlatformPolicy::set_mqtt_baseuri(const std::wstring& value) { mqtt_baseuri_ = value; }
void PlatformPolicy::set_api_mtls_uri(const std::wstring& value) { api_mtls_uri_ = value; }
void PlatformPolicy::set_api_geo_baseuri(const std::wstring& value) { api_geo_baseuri_ = value; }
void PlatformPolicy::set_mqtt_mtls_uri(const std::wstring& value) { mqtt_mtls_uri_ = value; }
void PlatformPolicy::set_mqtt_chain_pem64(const std::wstring& value) { mqtt_chain_pem64_ = value; }
void PlatformPolicy::set_device_auth_type(const std::wstring& value) { device_auth_type_ = value; }
void PlatformPolicy::set_jws_pubkey(const TextList& value) { jws_pubkey_ = value; }
void PlatformPolicy::set_tls_rootca_thumbprint_list(const TextList& value) { tls_rootca_thumbprint_list_ = value; }
void PlatformPolicy::set_tls_leaf_cn_list(const TextList& value) { tls_leaf_cn_list_ = value; }
void PlatformPolicy::set_device_subscription_list(const TextList& value) { device_subscription_list_ = value; }
void PlatformPolicy::set_allow_self_signed_cert(bool value) { allow_self_signed_cert_ = value; }
