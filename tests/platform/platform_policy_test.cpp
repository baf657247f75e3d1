#include "DiagnosticScanner/PlatformPolicy.h"

#include <utility>

#include <gtest/gtest.h>

namespace {

using List = PlatformPolicy::TextList;

TEST(PlatformPolicyTest, SettersReplaceWholeFieldsAndReferenceGettersShowTheStoredOnes) {
    PlatformPolicy policy;
    const std::wstring& api = policy.api_baseuri();
    const List& keys = policy.jws_pubkey();
    EXPECT_TRUE(keys.empty());
    EXPECT_FALSE(policy.allow_self_signed_cert());

    policy.set_jws_pubkey({L"k1", L"k2", L"k1"});
    policy.set_jws_pubkey({L"k3"});
    policy.set_tls_leaf_cn_list({L"a", L"b"});
    policy.set_tls_leaf_cn_list({});
    policy.set_api_baseuri(L"https://api");
    // References taken before the changes see them: they are the fields themselves.
    EXPECT_EQ(keys, List{L"k3"});
    EXPECT_EQ(api, L"https://api");
    EXPECT_EQ(&api, &policy.api_baseuri());
    EXPECT_TRUE(policy.tls_leaf_cn_list().empty());
    EXPECT_EQ(&policy.tls_rootca_thumbprint_list(), &policy.tls_rootca_thumbprint_list());
}

TEST(PlatformPolicyTest, CopiesAreIndependentAndMovesCarryEverything) {
    struct Loaded : PlatformPolicy {
        Loaded() { platform_policy_url_ = L"https://policy"; }
    };
    Loaded original;
    original.set_jws_pubkey({L"k1"});
    original.set_mqtt_baseuri(L"mqtts://m");
    original.set_allow_self_signed_cert(true);

    PlatformPolicy copy = original;
    copy.set_jws_pubkey({L"k2"});
    EXPECT_EQ(original.jws_pubkey(), List{L"k1"});

    PlatformPolicy moved = std::move(copy);
    EXPECT_EQ(moved.jws_pubkey(), List{L"k2"});
    EXPECT_EQ(moved.mqtt_baseuri(), L"mqtts://m");
    EXPECT_TRUE(moved.allow_self_signed_cert());
    EXPECT_EQ(moved.get_platform_policy_url(), L"https://policy");
}

}  // namespace
