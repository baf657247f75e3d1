#include "platform/device/PlatformPolicyFile.h"

#include <cstddef>
#include <list>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

using List = PlatformPolicy::TextList;

TEST(PlatformPolicyFileTest, ListsKeepOrderAndDuplicatesAndAWrongTypeLeavesOnlyThatFieldEmpty) {
    const PlatformPolicy policy = zep::platform::ParsePlatformPolicy(R"({"jws_pubkey": ["K2", "K1"], "tls_rootca_thumbprint_list": ["b", "a", "b"],
        "tls_leaf_cn_list": ["a", 7], "api_baseuri": 42, "mqtt_baseuri": "mqtts://m", "allow_self_signed_cert": true,
        "platform_policy_url": "https://x"})");
    EXPECT_EQ(policy.jws_pubkey(), (List{L"K2", L"K1"}));
    EXPECT_EQ(policy.tls_rootca_thumbprint_list(), (List{L"b", L"a", L"b"}));
    EXPECT_TRUE(policy.tls_leaf_cn_list().empty()) << "one bad element spoils the list";
    EXPECT_EQ(policy.api_baseuri(), L"");
    EXPECT_EQ(policy.mqtt_baseuri(), L"mqtts://m");
    EXPECT_TRUE(policy.allow_self_signed_cert());
    EXPECT_EQ(policy.get_platform_policy_url(), L"") << "not the file's to set";

    EXPECT_TRUE(zep::platform::ParsePlatformPolicy(R"({"jws_pubkey": ["K1"]} x)").jws_pubkey().empty())
        << "a malformed file gives nothing";
}

// The platform's record in its declared order: the module's copy is shared
// with modules built against the platform's headers and must match it.
struct PlatformRecord {
    std::wstring config_pull_triggers, enterprise_auth_baseuri, consumer_auth_baseuri, api_baseuri, discover_uri,
        mqtt_baseuri, api_mtls_uri, api_geo_baseuri, mqtt_mtls_uri, mqtt_chain_pem64, device_auth_type;
    std::list<std::wstring> jws_pubkey, tls_rootca_thumbprint_list, tls_leaf_cn_list, device_subscription_list;
    bool allow_self_signed_cert = false;
    std::wstring platform_policy_url;
};

template <typename Record, typename Field>
std::ptrdiff_t OffsetIn(const Record& record, const Field& field) {
    return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&record);
}

// Reaches the one protected field, the URL.
struct PolicyProbe : PlatformPolicy {
    std::ptrdiff_t UrlOffset() const { return OffsetIn<PlatformPolicy>(*this, platform_policy_url_); }
};

TEST(PlatformPolicyTest, FieldsLieInTheRecordsOrderWithTheUrlLast) {
    const PolicyProbe policy;
    const PlatformRecord record;
    EXPECT_EQ(sizeof(PlatformPolicy), sizeof(PlatformRecord));
    // The fields that the getters hand out by reference pin the rest between them.
#define ZEP_SAME_OFFSET(field) {OffsetIn<PlatformPolicy>(policy, policy.field()), OffsetIn(record, record.field), #field}
    const struct {
        std::ptrdiff_t actual, expected;
        const char* field;
    } offsets[] = {
        ZEP_SAME_OFFSET(api_baseuri), ZEP_SAME_OFFSET(discover_uri), ZEP_SAME_OFFSET(api_mtls_uri),
        ZEP_SAME_OFFSET(api_geo_baseuri), ZEP_SAME_OFFSET(mqtt_mtls_uri), ZEP_SAME_OFFSET(jws_pubkey),
        ZEP_SAME_OFFSET(tls_rootca_thumbprint_list), ZEP_SAME_OFFSET(tls_leaf_cn_list),
        ZEP_SAME_OFFSET(device_subscription_list),
        {policy.UrlOffset(), OffsetIn(record, record.platform_policy_url), "platform_policy_url"},
    };
#undef ZEP_SAME_OFFSET
    for (const auto& offset : offsets) EXPECT_EQ(offset.actual, offset.expected) << offset.field;
}

}  // namespace
