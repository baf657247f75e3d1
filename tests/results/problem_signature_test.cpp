// What the problem signature is hashed from.
#include "results/ProblemSignature.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "results/ResultFormat.h"

namespace zep::results {
namespace {

Json::Value TestDoc(const std::string& id, const Json::Value& result) {
    Json::Value test(Json::objectValue);
    test["id"] = id;
    if (!result.isNull()) test["result"] = result;
    return test;
}

Json::Value Component(const std::string& id, std::vector<Json::Value> tests, const std::string& seconds = "") {
    Json::Value component(Json::objectValue);
    component["componentId"] = id;
    component["executionTimeSeconds"] = seconds;
    component["tests"] = Json::Value(Json::arrayValue);
    for (auto& test : tests) component["tests"].append(test);
    return component;
}

TEST(SignatureInputTest, SortsByComponentThenTestWhateverTheReadingOrder) {
    std::vector<Json::Value> components = {
        Component("B", {TestDoc("t2", "fail"), TestDoc("t1", "fail"), TestDoc("t0", "pass")}),
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

TEST(SignatureInputTest, OnlyTheExactLowerCaseFailCounts) {
    const ComponentSummary summary = SummariseComponents(
        {Component("X", {TestDoc("a", "fail"), TestDoc("b", "Fail"), TestDoc("c", "FAIL"), TestDoc("d", "fail "),
                         TestDoc("e", Json::Value()), TestDoc("f", "pass"), TestDoc("g", true), TestDoc("h", "fail")})},
        0.0f);
    EXPECT_EQ(summary.signatureInput, "X,a\nX,h\n");
    EXPECT_EQ(summary.failedTests, 2);
}

TEST(SignatureInputTest, IdsCompareAsUnsignedBytesWithPrefixesFirst) {
    // U+00E9 starts with byte 0xC3, which sorts after 'z' only when unsigned.
    const ComponentSummary summary = SummariseComponents(
        {Component("\xC3\xA9", {TestDoc("t", "fail")}), Component("ab", {TestDoc("t", "fail")}),
         Component("a", {TestDoc("t10", "fail"), TestDoc("t2", "fail"), TestDoc("T3", "fail")}),
         Component("B", {TestDoc("t", "fail")}), Component("z", {TestDoc("t", "fail")})},
        0.0f);
    EXPECT_EQ(summary.signatureInput, "B,t\na,T3\na,t10\na,t2\nab,t\nz,t\n\xC3\xA9,t\n");
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

TEST(SignatureInputTest, ComponentsWithoutUsableTestsAddNothing) {
    Json::Value objectTests = Component("A", {});
    objectTests["tests"] = Json::Value(Json::objectValue);
    Json::Value noTests(Json::objectValue);
    noTests["componentId"] = "B";
    const Json::Value strayArtifact(Json::arrayValue);  // a package's own .json file
    Json::Value oddTest = Component("C", {TestDoc("t1", "fail")});
    oddTest["tests"].append("not an object");

    const ComponentSummary summary =
        SummariseComponents({objectTests, noTests, strayArtifact, Json::Value(7), oddTest}, 0.0f);
    EXPECT_EQ(summary.signatureInput, "C,t1\n");
    EXPECT_EQ(summary.failedTests, 1);
}

TEST(SignatureExecutionTimeTest, AddsEveryComponentToTheRunningTotal) {
    const ComponentSummary summary = SummariseComponents(
        {Component("A", {}, "0.100"), Component("B", {}, ""), Component("C", {}, "0.2004")}, 0.0f);
    EXPECT_EQ(FormatExecutionTime(summary.executionSeconds), L"0.301");

    EXPECT_FLOAT_EQ(SummariseComponents({Component("A", {}, "0.5")}, 1.25f).executionSeconds, 1.75f);
}

}  // namespace
}  // namespace zep::results
