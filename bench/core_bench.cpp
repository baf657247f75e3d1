// The costs of a scan's fixed parts: the built-in branch end to end, the log,
// text conversions and the result document.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/agent/Log.h"
#include "platform/util/Strings.h"
#include "platform/agent/CommonBase.h"
#include "results/ProblemSignature.h"
#include "results/ResultFormat.h"
#include "support/ManagerPeer.h"
#include "support/TestPlatform.h"

namespace {

// One manual scan on test doubles with real files: health tests, component
// result written atomically (fsync and rename), reset.
void BM_ManualScan(benchmark::State& state) {
    zep::testing::TestPlatform platform;
    platform.registry->SetDword(zep::platform::Hive::LocalMachine, L"SOFTWARE\\Quorin\\ZEP\\DeviceSupport",
                                L"certPinningError", 0);
    DiagnosticsManager manager;
    manager.Init(nullptr);
    for (auto _ : state) manager.GenerateDiagnostics(DiagnosticsManager::kManualScanRequest, std::nullopt);
}
BENCHMARK(BM_ManualScan)->Unit(benchmark::kMicrosecond);

class NullSink : public zep::platform::LogSink {
public:
    void Write(std::string_view line) override { benchmark::DoNotOptimize(line.data()); }
};

void BM_LogLine(benchmark::State& state) {
    zep::testing::TestPlatform platform;  // a fixed clock for the time stamp
    g_log.Open(std::make_shared<NullSink>());
    const std::wstring path = L"/var/lib/zep/diagnostics/latest/component-result.json";
    for (auto _ : state) {
        g_log.d(L"%s: package %s get-diagnostics process did not complete successfully (elapsedSec=%.2f)",
                "DiagnosticsManager::GenerateDiagnosticsForPackages", path, 61.25);
    }
    g_log.Open(nullptr);
}
BENCHMARK(BM_LogLine);

void BM_LogLineClosed(benchmark::State& state) {
    g_log.Open(nullptr);
    for (auto _ : state) g_log.d(L"%s: running tests", "DiagnosticsManager::RunDiagnostics");
}
BENCHMARK(BM_LogLineClosed);

void BM_Utf8RoundTrip(benchmark::State& state) {
    std::string text;
    while (text.size() < 4096) text += "componentId,123470e1-6d56-4eb7-8fdf-3bd3edc8bf02 Zürich 東京\n";
    for (auto _ : state) {
        auto wide = zep::text::FromUtf8(text);
        auto back = zep::text::ToUtf8(wide);
        benchmark::DoNotOptimize(back.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_Utf8RoundTrip);

void BM_FormatExecutionTime(benchmark::State& state) {
    float seconds = 0.0004f;
    for (auto _ : state) {
        auto text = zep::results::FormatExecutionTime(seconds);
        benchmark::DoNotOptimize(text.data());
        seconds += 0.001f;
    }
}
BENCHMARK(BM_FormatExecutionTime);

// The problem signature of a scan with 10,000 failed tests (100 components of
// 100 failed tests each, read in reverse order): input text and SHA-256.
void BM_ProblemSignature10kFailedTests(benchmark::State& state) {
    std::vector<Json::Value> components;
    for (int c = 99; c >= 0; --c) {
        Json::Value component(Json::objectValue);
        component["componentId"] = "component-" + std::to_string(c);
        component["executionTimeSeconds"] = "0.125";
        Json::Value tests(Json::arrayValue);
        for (int t = 99; t >= 0; --t) {
            Json::Value test(Json::objectValue);
            test["id"] = "7f3c1a2e-6d56-4eb7-8fdf-" + std::to_string(100000000000 + t);
            test["result"] = "fail";
            tests.append(std::move(test));
        }
        component["tests"] = std::move(tests);
        components.push_back(std::move(component));
    }
    for (auto _ : state) {
        const auto summary = zep::results::SummariseComponents(components, 0.0f);
        std::string digest;
        CoreUtility::CreateSHA256Hash(digest, summary.signatureInput);
        benchmark::DoNotOptimize(digest.data());
    }
}
BENCHMARK(BM_ProblemSignature10kFailedTests)->Unit(benchmark::kMicrosecond);

}  // namespace
