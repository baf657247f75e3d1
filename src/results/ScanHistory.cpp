// The scan history log: one line per scan.
#include <cstdint>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/CommonBase.h"
#include "results/ProblemSignature.h"

namespace {
constexpr const char* kParseLineLabel = "DiagnosticsManager::ParseScanHistoryLine";
constexpr std::size_t kHistoryFields = 6;
}  // namespace

// Scans are not recorded in a history yet.
void DiagnosticsManager::GenerateScanHistory() {}

// No upload is ever deferred yet, so there is nothing to resume.
void DiagnosticsManager::DeviceHasComeOnline() {}

bool DiagnosticsManager::ParseScanHistoryLine(const std::wstring& line, ScanHistoryEntry& entry) {
    // time stamp, trigger, upload status, artifact status, failed tests, signature
    const std::vector<std::wstring> fields = zep::results::SplitHistoryFields(line);
    if (fields.size() != kHistoryFields) return false;

    ScanHistoryEntry parsed;
    parsed.timeStamp = fields[0];
    const std::wstring trigger = String::ToLower(fields[1]);
    if (trigger == L"manual") {
        parsed.triggerType = 0;
    } else if (trigger == L"mqtt") {
        parsed.triggerType = 2;
    } else if (trigger == L"scheduled") {
        parsed.triggerType = 1;
    } else {
        return false;
    }
    try {
        // std::stoi: leading blanks and a sign are accepted, text after the
        // digits is ignored, a field without digits throws.
        parsed.sentToCloud = static_cast<std::uint8_t>(std::stoi(fields[2]));
        parsed.artifactStatus = static_cast<std::uint8_t>(std::stoi(fields[3]));
        parsed.failedTestCount = std::stoi(fields[4]);
    } catch (const std::exception& ex) {
        g_log.e(L"%s Error reason :: %ls", kParseLineLabel, String::UTF8ToUTF16(ex.what()));
        return false;
    }
    parsed.problemSignature = fields[5];
    entry = std::move(parsed);
    return true;
}
