#include "platform/posix/PlatformPolicyFile.h"

#include <string>

#include <gtest/gtest.h>

#include "support/TestPlatform.h"

namespace {

using zep::platform::LoadPlatformPolicy;
using List = PlatformPolicy::TextList;

class PlatformPolicyFileTest : public ::testing::Test {
protected:
    PlatformPolicy Load(const std::string& json) {
        zep::testing::WriteText(file, json);
        return LoadPlatformPolicy(file);
    }
    zep::testing::TestPlatform platform;
    std::filesystem::path file = platform.rootPath / "platform-policy.json";
};

TEST_F(PlatformPolicyFileTest, EveryFieldIsLoadedAndListsKeepOrderAndDuplicates) {
    const PlatformPolicy policy = Load(R"({
        "config_pull_triggers": "t", "enterprise_auth_baseuri": "https://ent", "consumer_auth_baseuri": "https://con",
        "api_baseuri": "https://api", "discover_uri": "https://disc", "mqtt_baseuri": "mqtts://m",
        "api_mtls_uri": "https://mtls", "api_geo_baseuri": "https://geo", "mqtt_mtls_uri": "mqtts://mm",
        "mqtt_chain_pem64": "UEVN", "device_auth_type": "cert",
        "jws_pubkey": ["-----BEGIN PUBLIC KEY-----\nK2\n-----END PUBLIC KEY-----\n", "K1"],
        "tls_rootca_thumbprint_list": ["b", "a", "b"], "tls_leaf_cn_list": ["z\u00e9"],
        "device_subscription_list": [], "allow_self_signed_cert": true, "platform_policy_url": "https://x"})");
    EXPECT_EQ(policy.config_pull_triggers(), L"t");
    EXPECT_EQ(policy.enterprise_auth_baseuri(), L"https://ent");
    EXPECT_EQ(policy.consumer_auth_baseuri(), L"https://con");
    EXPECT_EQ(policy.api_baseuri(), L"https://api");
    EXPECT_EQ(policy.discover_uri(), L"https://disc");
    EXPECT_EQ(policy.mqtt_baseuri(), L"mqtts://m");
    EXPECT_EQ(policy.api_mtls_uri(), L"https://mtls");
    EXPECT_EQ(policy.api_geo_baseuri(), L"https://geo");
    EXPECT_EQ(policy.mqtt_mtls_uri(), L"mqtts://mm");
    EXPECT_EQ(policy.mqtt_chain_pem64(), L"UEVN");
    EXPECT_EQ(policy.device_auth_type(), L"cert");
    EXPECT_EQ(policy.jws_pubkey(), (List{L"-----BEGIN PUBLIC KEY-----\nK2\n-----END PUBLIC KEY-----\n", L"K1"}));
    EXPECT_EQ(policy.tls_rootca_thumbprint_list(), (List{L"b", L"a", L"b"}));
    EXPECT_EQ(policy.tls_leaf_cn_list(), List{L"z\u00e9"});
    EXPECT_TRUE(policy.device_subscription_list().empty());
    EXPECT_TRUE(policy.allow_self_signed_cert());
    EXPECT_EQ(policy.get_platform_policy_url(), L"") << "not the file's to set";
}

TEST_F(PlatformPolicyFileTest, AFieldOfTheWrongTypeStaysEmptyWhileTheOthersLoad) {
    const PlatformPolicy policy = Load(R"({"api_baseuri": 42, "discover_uri": ["https://d"],
        "jws_pubkey": "K1", "tls_rootca_thumbprint_list": ["a", 7], "tls_leaf_cn_list": {"a": "b"},
        "allow_self_signed_cert": "true", "mqtt_baseuri": "mqtts://kept", "device_subscription_list": ["s"]})");
    EXPECT_EQ(policy.api_baseuri(), L"");
    EXPECT_EQ(policy.discover_uri(), L"");
    EXPECT_TRUE(policy.jws_pubkey().empty());
    EXPECT_TRUE(policy.tls_rootca_thumbprint_list().empty()) << "one bad element spoils the list";
    EXPECT_TRUE(policy.tls_leaf_cn_list().empty());
    EXPECT_FALSE(policy.allow_self_signed_cert());
    EXPECT_EQ(policy.mqtt_baseuri(), L"mqtts://kept");
    EXPECT_EQ(policy.device_subscription_list(), List{L"s"});
}

TEST_F(PlatformPolicyFileTest, MissingOrMalformedFileGivesAnEmptyRecord) {
    const auto isEmpty = [](const PlatformPolicy& p) {
        return p.api_baseuri().empty() && p.jws_pubkey().empty() && !p.allow_self_signed_cert();
    };
    EXPECT_TRUE(isEmpty(LoadPlatformPolicy(platform.rootPath / "absent.json")));
    EXPECT_TRUE(isEmpty(LoadPlatformPolicy(platform.rootPath))) << "a folder";
    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    for (const std::string& bad : {std::string(""), std::string(R"({"api_baseuri": "https://a")"),
                                   std::string(R"(["api_baseuri"])"), std::string(R"({"api_baseuri": "a"} x)"),
                                   R"({"api_baseuri": "a", "x": )" + deep + "}"}) {
        EXPECT_TRUE(isEmpty(Load(bad))) << bad.substr(0, 40);
    }
}

}  // namespace
