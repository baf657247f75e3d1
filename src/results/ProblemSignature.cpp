#include "results/ProblemSignature.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "platform/agent/Log.h"

namespace zep::results {
namespace {

// Any .json file below a scan's folder is read as a component document, and
// packages may leave artifacts of their own there; such a file must not
// abort the summary with a type error, so non-objects read as empty.
const Json::Value& Member(const Json::Value& value, const char* key) {
    static const Json::Value kNull;
    if (!value.isObject()) return kNull;
    return value[key];
}

std::string Text(const Json::Value& value) {
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

struct FailedTests {
    std::string componentId;
    std::vector<std::string> testIds;
};

}  // namespace

ComponentSummary SummariseComponents(const std::vector<Json::Value>& components, float executionSecondsSoFar) {
    ComponentSummary summary;
    summary.executionSeconds = executionSecondsSoFar;
    std::vector<FailedTests> failed;
    failed.reserve(components.size());

    for (const Json::Value& component : components) {
        FailedTests entry;
        entry.componentId = Text(Member(component, "componentId"));
        const std::string seconds = Text(Member(component, "executionTimeSeconds"));
        g_log.d(L"componentID:%s executionTimeSeconds: %s", entry.componentId, seconds);
        if (!seconds.empty()) summary.executionSeconds += std::stof(seconds);

        const Json::Value& tests = Member(component, "tests");
        if (!tests.isArray() || tests.empty()) {
            g_log.d(L"GenerateProblemSignature: No test found for component ID: %s", entry.componentId);
            continue;
        }
        for (Json::ArrayIndex i = 0; i < tests.size(); ++i) {
            const Json::Value& test = tests[i];
            // Exact JSON equality: "Fail", "FAIL" or a missing result is no failure.
            if (Member(test, "result") != Json::Value("fail")) continue;
            entry.testIds.push_back(Text(Member(test, "id")));
            ++summary.failedTests;
        }
        std::sort(entry.testIds.begin(), entry.testIds.end());
        failed.push_back(std::move(entry));
    }

    // std::string compares through char_traits<char>, i.e. as unsigned bytes,
    // so ids outside ASCII order the same on every platform.
    std::stable_sort(failed.begin(), failed.end(),
                     [](const FailedTests& a, const FailedTests& b) { return a.componentId < b.componentId; });
    for (const auto& entry : failed) {
        for (const auto& testId : entry.testIds) {
            summary.signatureInput += entry.componentId;
            summary.signatureInput += ',';
            summary.signatureInput += testId;
            summary.signatureInput += '\n';
        }
    }
    return summary;
}

std::vector<std::wstring> SplitHistoryFields(const std::wstring& line) {
    std::vector<std::wstring> fields;
    std::wistringstream stream(line);
    std::wstring field;
    while (std::getline(stream, field, L',')) fields.push_back(field);
    return fields;
}

std::vector<std::string> SplitHistoryText(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    std::string line;
    while (std::getline(stream, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
    }
    return lines;
}

std::string JoinHistoryText(const std::vector<std::string>& lines) {
#ifdef _WIN32
    constexpr const char* kLineBreak = "\r\n";
#else
    constexpr const char* kLineBreak = "\n";
#endif
    std::string text;
    for (const std::string& line : lines) {
        text += line;
        text += kLineBreak;
    }
    return text;
}

}  // namespace zep::results
