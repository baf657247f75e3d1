// What the problem signature is hashed from.
#include "results/ProblemSignature.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

namespace zep::results {
namespace {

Json::Value TestDoc(const std::string& id, const Json::Value& result) {
    Json::Value test(Json::objectValue);
    test["id"] = id;
    if (!result.isNull()) test["result"] = result;
    return test;
}

Json::Value Component(const std::string& id, std::vector<Json::Value> tests) {
    Json::Value component(Json::objectValue);
    component["componentId"] = id;
    component["tests"] = Json::Value(Json::arrayValue);
    for (auto& test : tests) component["tests"].append(test);
    return component;
}

// Only the exact lower-case "fail" counts; the order is by component, then test.
TEST(SignatureInputTest, SortsFailedTestsWhateverTheReadingOrder) {
    std::vector<Json::Value> components = {
        Component("B", {TestDoc("t2", "fail"), TestDoc("t1", "fail"), TestDoc("t0", "pass"), TestDoc("t3", "Fail"),
                        TestDoc("t4", "FAIL"), TestDoc("t5", "fail "), TestDoc("t6", Json::Value()),
                        TestDoc("t7", true)}),
        Component("A", {TestDoc("t9", "fail")}),
        Component("C", {}),
    };
    std::sort(components.begin(), components.end());
    do {
        const ComponentSummary summary = SummariseComponents(components, 0.0f);
        EXPECT_EQ(summary.signatureInput, "A,t9\nB,t1\nB,t2\n");
        EXPECT_EQ(summary.failedTests, 3);
    } while (std::next_permutation(components.begin(), components.end()));
}

TEST(SignatureInputTest, ComponentsWithTheSameIdKeepTheirReadingOrder) {
    // Enough equal keys that an unstable sort would visibly reorder them.
    std::vector<Json::Value> components;
    std::string expectedX, expectedY;
    for (int i = 99; i >= 0; --i) {
        const std::string id = i % 2 == 0 ? "X" : "Y";
        const std::string test = "t" + std::to_string(i);
        components.push_back(Component(id, {TestDoc(test, "fail")}));
        (i % 2 == 0 ? expectedX : expectedY) += id + "," + test + "\n";
    }
    EXPECT_EQ(SummariseComponents(components, 0.0f).signatureInput, expectedX + expectedY);
}

}  // namespace
}  // namespace zep::results
