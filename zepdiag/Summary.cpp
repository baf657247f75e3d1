#include "Summary.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <vector>

#include <json/json.h>

namespace zepdiag {
namespace {

namespace fs = std::filesystem;

constexpr const char* kNotProduced = "not produced";

std::optional<Json::Value> ReadJson(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) || !root.isObject()) {
            return std::nullopt;
        }
    } catch (...) {
        return std::nullopt;
    }
    return root;
}

std::string TextOf(const Json::Value& object, const char* key) {
    const Json::Value& value = object[key];
    if (value.isNull()) return kNotProduced;
    if (value.isString() || value.isBool() || value.isNumeric()) return value.asString();
    return "(not a text)";
}

struct Row {
    std::string name, expected, actual, verdict;
};

void PrintTests(std::ostream& out, const Json::Value& tests) {
    std::vector<Row> rows;
    int failed = 0;
    if (!tests.isArray()) {
        out << "Tests:          " << kNotProduced << '\n';
        return;
    }
    for (const auto& test : tests) {
        if (!test.isObject()) continue;
        Row row{TextOf(test, "friendlyName"), TextOf(test, "expected"), TextOf(test, "actual"), "PASS"};
        // The verdict is the module's own rule: a test fails when what it
        // found differs from what it expected.
        if (row.actual != row.expected) {
            row.verdict = "FAIL";
            ++failed;
        }
        rows.push_back(std::move(row));
    }
    if (rows.empty()) {
        out << "Tests:          none\n";
        return;
    }

    Row widths{"TEST", "EXPECTED", "ACTUAL", "RESULT"};
    std::size_t w[3] = {widths.name.size(), widths.expected.size(), widths.actual.size()};
    for (const auto& row : rows) {
        w[0] = std::max(w[0], row.name.size());
        w[1] = std::max(w[1], row.expected.size());
        w[2] = std::max(w[2], row.actual.size());
    }
    auto line = [&](const Row& row) {
        out << "  " << row.name << std::string(w[0] - row.name.size() + 2, ' ') << row.expected
            << std::string(w[1] - row.expected.size() + 2, ' ') << row.actual
            << std::string(w[2] - row.actual.size() + 2, ' ') << row.verdict << '\n';
    };
    out << "Tests:\n";
    line(widths);
    for (const auto& row : rows) line(row);
    out << "Failed tests:   " << failed << " of " << rows.size() << '\n';
}

void PrintPath(std::ostream& out, const char* label, const std::optional<fs::path>& path) {
    std::error_code code;
    out << label << (path && fs::exists(*path, code) ? path->string() : std::string(kNotProduced)) << '\n';
}

}  // namespace

ResultFiles ListComponentResults(const fs::path& deviceDir) {
    ResultFiles files;
    std::error_code code;
    const fs::path root = deviceDir / "temp" / "Quorin" / "Zep";
    for (fs::directory_iterator it(root, code), end; !code && it != end; it.increment(code)) {
        const fs::path result = it->path() / "ZEP" / "component-result.json";
        std::error_code fileCode;
        const auto modified = fs::last_write_time(result, fileCode);
        if (!fileCode && fs::is_regular_file(result, fileCode)) files.emplace(result, modified);
    }
    return files;
}

std::optional<fs::path> NewestWrittenSince(const ResultFiles& before, const ResultFiles& after) {
    std::optional<fs::path> newest;
    fs::file_time_type newestTime{};
    for (const auto& [path, modified] : after) {
        const auto old = before.find(path);
        if (old != before.end() && old->second == modified) continue;
        if (!newest || modified > newestTime) {
            newest = path;
            newestTime = modified;
        }
    }
    return newest;
}

fs::path ModuleLogPath(const fs::path& deviceDir) { return deviceDir / "programdata" / "Log" / "ZEPDiagnostics.log"; }

void PrintScanSummary(std::ostream& out, const fs::path& deviceDir, const std::string& trigger,
                      const std::optional<fs::path>& resultFile) {
    out << "Device folder:  " << deviceDir.string() << '\n';
    out << "Trigger:        " << trigger << '\n';

    const std::optional<Json::Value> result = resultFile ? ReadJson(*resultFile) : std::nullopt;
    if (!resultFile) {
        out << "Component result: " << kNotProduced << '\n';
    } else {
        // <temp>/Quorin/Zep/<scan name>/ZEP/component-result.json
        out << "Scan name:      " << resultFile->parent_path().parent_path().filename().string() << '\n';
        if (!result) {
            out << "Component result: unreadable\n";
        } else {
            out << "Component:      " << TextOf(*result, "componentId") << " (" << TextOf(*result, "friendlyName")
                << ")\n";
            out << "Result type:    " << TextOf(*result, "resultType") << '\n';
            out << "Execution time: " << TextOf(*result, "executionTimeSeconds") << " s\n";
            PrintTests(out, (*result)["tests"]);
        }
    }
    PrintPath(out, "Result file:    ", resultFile);
    PrintPath(out, "Module log:     ", ModuleLogPath(deviceDir));
}

}  // namespace zepdiag
