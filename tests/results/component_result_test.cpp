// The component result document the manager writes after a component's tests ran.
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "support/ManagerPeer.h"
#include "support/TestPlatform.h"

namespace {

zep::diagnostics::Tests MakeTest(std::wstring name, std::wstring id, std::wstring expected, std::wstring actual) {
    zep::diagnostics::Tests test;
    test.name = std::move(name);
    test.id = std::move(id);
    test.expected = std::move(expected);
    test.actual = std::move(actual);
    return test;
}

// The cloud reads this exact layout: JsonCpp's default style, keys sorted.
TEST(ComponentResultTest, WritesTheWholeDocumentInJsonCppDefaultStyle) {
    zep::testing::TestPlatform platform;
    DiagnosticsManager manager;
    DiagnosticsManagerTestPeer peer{manager};
    peer.scanID() = L"scan1";
    peer.tests() = {
        MakeTest(L"device_registered", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf02", L"registered", L"registered"),
        MakeTest(L"xrs_api_cert_pinning", L"123470e1-6d56-4eb7-8fdf-3bd3edc8bf06", L"success", L"failed"),
    };
    DiagnosticsManager::commonComponent component;
    component.executionTime = L"0.123";
    component.resultType = L"Complete";
    component.componentId = L"9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB";
    component.friendlyName = L"ZEP";
    component.failedTests = 1;

    manager.HandleFlowAfterRunOfTests(component);

    EXPECT_EQ(zep::testing::ReadText(platform.rootPath / "temp" / "Quorin" / "Zep" / "scan1" / "ZEP" /
                                     "component-result.json"),
              "{\n"
              "\t\"componentId\" : \"9A1B2C3D-4E5F-4A6B-8C7D-0123456789AB\",\n"
              "\t\"executionTimeSeconds\" : \"0.123\",\n"
              "\t\"friendlyName\" : \"ZEP\",\n"
              "\t\"isProblematic\" : true,\n"
              "\t\"resultType\" : \"Complete\",\n"
              "\t\"tests\" : \n"
              "\t[\n"
              "\t\t{\n"
              "\t\t\t\"actual\" : \"registered\",\n"
              "\t\t\t\"expected\" : \"registered\",\n"
              "\t\t\t\"friendlyName\" : \"device_registered\",\n"
              "\t\t\t\"id\" : \"123470e1-6d56-4eb7-8fdf-3bd3edc8bf02\",\n"
              "\t\t\t\"result\" : \"pass\"\n"
              "\t\t},\n"
              "\t\t{\n"
              "\t\t\t\"actual\" : \"failed\",\n"
              "\t\t\t\"expected\" : \"success\",\n"
              "\t\t\t\"friendlyName\" : \"xrs_api_cert_pinning\",\n"
              "\t\t\t\"id\" : \"123470e1-6d56-4eb7-8fdf-3bd3edc8bf06\",\n"
              "\t\t\t\"result\" : \"fail\"\n"
              "\t\t}\n"
              "\t]\n"
              "}");
}

}  // namespace
