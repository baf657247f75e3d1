#include "platform/device/PlatformPolicyFile.h"

#include <list>
#include <string>

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

}  // namespace
