#include "Summary.h"

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <memory>
#include <sstream>
#include <system_error>

#include <zip.h>

namespace zepdiag {
namespace {

namespace fs = std::filesystem;

constexpr const char* kNotProduced = "not produced";
constexpr std::size_t kValueColumn = 19;  // fits "Problem signature: "
constexpr std::size_t kListedEntries = 60;

// "label:" padded so that every value starts in the same column, whatever
// the indentation.
std::string Field(const std::string& label, const std::string& value, std::size_t indent = 0) {
    const std::size_t used = indent + label.size() + 1;
    const std::size_t pad = used < kValueColumn ? kValueColumn - used : 1;
    return std::string(indent, ' ') + label + ':' + std::string(pad, ' ') + value + '\n';
}

std::string TextOf(const Json::Value& object, const char* key) {
    if (!object.isObject()) return kNotProduced;
    const Json::Value& value = object[key];
    if (value.isNull()) return kNotProduced;
    if (value.isString() || value.isBool() || value.isNumeric()) return value.asString();
    return "(not a text)";
}

std::string Seconds(const Json::Value& object, const char* key) {
    const std::string text = TextOf(object, key);
    return text == kNotProduced ? text : text + " s";
}

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

struct Row {
    std::string name, expected, actual, verdict;
};

// The module's own verdict; anything else is shown as it is, so that a
// malformed result stands out instead of passing silently.
std::string Verdict(const Json::Value& test) {
    const std::string result = TextOf(test, "result");
    if (result == "pass") return "PASS";
    if (result == "fail") return "FAIL";
    return result;
}

std::string TableLines(const std::vector<Row>& rows, std::size_t indent) {
    const Row header{"TEST", "EXPECTED", "ACTUAL", "RESULT"};
    std::size_t w[3] = {header.name.size(), header.expected.size(), header.actual.size()};
    for (const auto& row : rows) {
        w[0] = std::max(w[0], row.name.size());
        w[1] = std::max(w[1], row.expected.size());
        w[2] = std::max(w[2], row.actual.size());
    }
    std::string text;
    auto line = [&](const Row& row) {
        text += std::string(indent, ' ') + row.name + std::string(w[0] - row.name.size() + 2, ' ') + row.expected +
                std::string(w[1] - row.expected.size() + 2, ' ') + row.actual +
                std::string(w[2] - row.actual.size() + 2, ' ') + row.verdict + '\n';
    };
    line(header);
    for (const auto& row : rows) line(row);
    return text;
}

fs::path LatestFolder(const fs::path& deviceDir) { return deviceDir / "programdata" / "diagnostics" / "latest"; }

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string ZipErrorText(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    std::string text = zip_error_strerror(&error);
    zip_error_fini(&error);
    return text;
}

std::string ExistingOrNotProduced(const std::optional<fs::path>& path) {
    std::error_code code;
    return path && fs::exists(*path, code) ? path->string() : std::string(kNotProduced);
}

}  // namespace

fs::path ScanResultPath(const fs::path& deviceDir) { return LatestFolder(deviceDir) / "scan-result.json"; }

ResultSnapshot SnapshotScanResult(const fs::path& deviceDir) {
    ResultSnapshot snapshot;
    const fs::path path = ScanResultPath(deviceDir);
    std::error_code code;
    if (!fs::is_regular_file(path, code)) return snapshot;
    snapshot.modified = fs::last_write_time(path, code);
    std::ifstream in(path, std::ios::binary);
    if (code || !in) return snapshot;
    snapshot.content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    snapshot.exists = true;
    return snapshot;
}

std::optional<fs::path> ScanResultWrittenSince(const fs::path& deviceDir, const ResultSnapshot& before) {
    const ResultSnapshot now = SnapshotScanResult(deviceDir);
    if (!now.exists) return std::nullopt;
    // The time alone can miss a rewrite within the file system's clock
    // granularity; the content alone misses nothing a reader would notice.
    if (before.exists && now.modified == before.modified && now.content == before.content) return std::nullopt;
    return ScanResultPath(deviceDir);
}

std::optional<fs::path> FindScanZip(const fs::path& deviceDir, const std::string& scanId) {
    if (scanId.empty()) return std::nullopt;
    const std::string suffix = "_" + scanId + ".zip";
    std::optional<fs::path> found;
    fs::file_time_type foundTime{};
    std::error_code code;
    for (fs::directory_iterator it(LatestFolder(deviceDir), code), end; !code && it != end; it.increment(code)) {
        std::error_code fileCode;
        if (!EndsWith(it->path().filename().string(), suffix) || !it->is_regular_file(fileCode)) continue;
        const auto modified = it->last_write_time(fileCode);
        if (!found || modified > foundTime) {
            found = it->path();
            foundTime = modified;
        }
    }
    return found;
}

ZipListing ReadZipListing(const fs::path& zipPath) {
    ZipListing listing;
    listing.path = zipPath;
    std::error_code code;
    listing.size = fs::file_size(zipPath, code);
    if (code) listing.size = 0;

    int openError = 0;
    zip_t* archive = zip_open(zipPath.c_str(), ZIP_RDONLY, &openError);
    if (archive == nullptr) {
        listing.error = ZipErrorText(openError);
        return listing;
    }
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        const char* name = zip_get_name(archive, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_GUESS);
        listing.entries.emplace_back(name != nullptr ? name : "(unnamed)");
    }
    zip_discard(archive);  // read only: nothing to write back
    return listing;
}

std::string HumanSize(std::uintmax_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " B";
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes) / 1024.0;
    std::size_t unit = 0;
    // 1023.95 and up would print as "1024.0" of the smaller unit.
    while (value >= 1023.95 && unit + 1 < std::size(kUnits)) {
        value /= 1024.0;
        ++unit;
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << value << ' ' << kUnits[unit];
    return text.str();
}

std::string FormatTestTable(const Json::Value& component) {
    const Json::Value& tests = component.isObject() ? component["tests"] : Json::Value::nullSingleton();
    if (!tests.isArray()) return Field("Tests", kNotProduced, 2);

    std::vector<Row> rows;
    std::size_t failed = 0;
    for (const auto& test : tests) {
        if (!test.isObject()) continue;
        rows.push_back(Row{TextOf(test, "friendlyName"), TextOf(test, "expected"), TextOf(test, "actual"),
                           Verdict(test)});
        if (rows.back().verdict == "FAIL") ++failed;
    }
    if (rows.empty()) return Field("Tests", "none (this component has no tests)", 2);
    return Field("Tests", std::to_string(failed) + " of " + std::to_string(rows.size()) + " failed", 2) +
           TableLines(rows, 4);
}

std::string FormatComponent(const Json::Value& component) {
    return Field("Component", TextOf(component, "friendlyName") + " (" + TextOf(component, "componentId") + ")") +
           Field("Result type", TextOf(component, "resultType"), 2) +
           Field("Execution time", Seconds(component, "executionTimeSeconds"), 2) + FormatTestTable(component);
}

std::string FormatScanResult(const Json::Value& scanResult) {
    std::string signature = TextOf(scanResult, "problemSignature");
    if (signature.empty()) signature = "none";
    std::string text = Field("Trigger", TextOf(scanResult, "trigger")) + Field("Scan id", TextOf(scanResult, "id")) +
                       Field("Device id", TextOf(scanResult, "deviceId")) +
                       Field("Completed at", TextOf(scanResult, "deviceTimeCompletedAt")) +
                       Field("Execution time", Seconds(scanResult, "executionTimeSeconds")) +
                       Field("Failed tests", TextOf(scanResult, "failTestCount")) +
                       Field("Problem signature", signature);

    const Json::Value& components = scanResult.isObject() ? scanResult["components"] : Json::Value::nullSingleton();
    if (!components.isArray()) return text + Field("Components", kNotProduced);
    if (components.empty()) return text + Field("Components", "none");
    for (const auto& component : components) text += '\n' + FormatComponent(component);
    return text;
}

std::string FormatZipListing(const ZipListing& listing) {
    const auto& entries = listing.entries;
    std::string text = Field("Zip", listing.path.string()) +
                       Field("Zip size", std::to_string(listing.size) + " bytes (" + HumanSize(listing.size) + ")");
    if (!listing.error.empty()) return text + Field("Zip entries", "unreadable (" + listing.error + ")");
    text += Field("Zip entries", std::to_string(entries.size()));
    const std::size_t shown = std::min(entries.size(), kListedEntries);
    for (std::size_t i = 0; i < shown; ++i) text += "  " + entries[i] + '\n';
    if (entries.size() > shown) text += "  ... " + std::to_string(entries.size() - shown) + " more\n";
    return text;
}

fs::path ModuleLogPath(const fs::path& deviceDir) { return deviceDir / "programdata" / "Log" / "ZEPDiagnostics.log"; }

void PrintScanSummary(std::ostream& out, const fs::path& deviceDir, const std::string& trigger,
                      const std::optional<fs::path>& resultFile) {
    out << Field("Device folder", deviceDir.string());

    const std::optional<Json::Value> result = resultFile ? ReadJson(*resultFile) : std::nullopt;
    if (result) {
        out << FormatScanResult(*result);
    } else {
        out << Field("Trigger", trigger) << Field("Scan result", resultFile ? "unreadable" : kNotProduced);
    }

    out << '\n';
    const std::optional<fs::path> zipPath =
        result && (*result)["id"].isString() ? FindScanZip(deviceDir, (*result)["id"].asString()) : std::nullopt;
    out << (zipPath ? FormatZipListing(ReadZipListing(*zipPath)) : Field("Zip", kNotProduced));

    out << Field("Result file", ExistingOrNotProduced(resultFile))
        << Field("Module log", ExistingOrNotProduced(ModuleLogPath(deviceDir)));
}

}  // namespace zepdiag
