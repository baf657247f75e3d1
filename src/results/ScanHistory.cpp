// The scan history log: one line per scan, at most 100 lines, the newest
// last. Its last line tells whether the latest scan still waits for its upload.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "platform/util/ExceptionText.h"
#include "platform/agent/CommonBase.h"
#include "platform/util/Paths.h"
#include "platform/util/Strings.h"
#include "manager/ScanLock.h"
#include "results/HistoryFile.h"
#include "results/ProblemSignature.h"

namespace {
constexpr const char* kGenerateLabel = "DiagnosticsManager::GenerateScanHistory";
constexpr const char* kParseLineLabel = "DiagnosticsManager::ParseScanHistoryLine";
constexpr const char* kLastLineLabel = "DiagnosticsManager::GetLastLineInFile";
constexpr const char* kUpdateLabel = "DiagnosticsManager::UpdateStatusForLastLineInScanHistoryFile";
constexpr const char* kOnlineLabel = "DiagnosticsManager::DeviceHasComeOnline";
constexpr std::size_t kHistoryFields = 6;
constexpr auto kMaxHistoryLines = static_cast<int>(zep::results::kHistoryLines);
constexpr std::uint8_t kStatusNetworkNotConnected = 2;

// The agent's history file; false when the agent's data root is unknown, so
// that nothing is written outside it.
bool ScanHistoryPath(std::wstring& path) {
    std::wstring root;
    if (!utility::GetZepAppDataRootPath(root) || root.empty()) return false;
    path = root + zep::path::NativePath(L"\\diagnostics\\scan-history.log");
    return true;
}


}  // namespace

void DiagnosticsManager::GenerateScanHistory() {
    try {
        std::wstring path;
        if (!ScanHistoryPath(path)) {
            g_log.e(L"%s Unable to find the agent's data folder; scan history not written", kGenerateLabel);
            return;
        }
        g_log.d(L"scan history folder path : %s", path);
        const std::wstring folder = FileSystem::getDirectoryName(path);
        if (!folder.empty()) FileSystem::createDirectory(folder, true);

        // Earlier lines are carried over as bytes. A history that cannot be read
        // counts as empty: the file then restarts with this scan's line.
        std::vector<std::string> lines;
        zep::results::ReadHistoryLines(path, lines);

        std::wostringstream line;
        line << GetCurrentTimeStamp() << L',' << GetTriggerType() << L',' << GetFileUploadToCloudStatus() << L','
             << artifactIncludedStatus << L',' << totalTestFailureCount << L',' << problemSignature;
        lines.push_back(String::UTF16ToUTF8(line.str()));

        if (lines.size() <= static_cast<std::size_t>(kMaxHistoryLines)) {
            g_log.d(L"Scan history logs less than or equals to 100 lines");
        } else {
            g_log.d(L"Scan history logs exceeded 100 lines, hence removing the first log on cyclic buffer");
            lines.erase(lines.begin(), lines.end() - kMaxHistoryLines);
        }

        // Atomic: a crash half-way leaves the previous history, never a torn one.
        if (!FileSystem::writeFileAtomically(path, zep::results::JoinHistoryText(lines))) {
            g_log.e(L"%s Unable to open file: %s for writing", kGenerateLabel, path);
        }
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kGenerateLabel, zep::CurrentExceptionText());
    }
}

void DiagnosticsManager::ProcessCyclicBuffer(std::vector<std::wstring>& lines, int maxLines) {
    const std::size_t keep = maxLines > 0 ? static_cast<std::size_t>(maxLines) : 0;
    if (lines.size() <= keep) return;
    lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(keep));
}

std::wstring DiagnosticsManager::GetLastLineInFile(std::wstring& path) {
    try {
        if (!FileSystem::fileExists(path)) {
            g_log.d(L"%s File %s does not exist", kLastLineLabel, path);
            return {};
        }
        std::vector<std::string> lines;
        if (!zep::results::ReadHistoryLines(path, lines)) {
            g_log.d(L"%s Unable to open file %s", kLastLineLabel, path);
            return {};
        }
        const std::wstring last = lines.empty() ? std::wstring() : String::UTF8ToUTF16(lines.back());
        if (last.empty()) g_log.d(L"%s File is empty %s", kLastLineLabel, path);
        return last;
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kLastLineLabel, zep::CurrentExceptionText());
        return {};
    }
}

bool DiagnosticsManager::UpdateStatusForLastLineInScanHistoryFile(const std::wstring& path, const int& sentToCloud,
                                                                  const int& artifactStatus) {
    try {
        std::vector<std::string> lines;
        if (!zep::results::ReadHistoryLines(path, lines)) {
            g_log.e(L"%s Unable to open file: %s for reading", kUpdateLabel, path);
            return false;
        }
        if (lines.empty()) {
            g_log.e(L"%s File is empty: %s", kUpdateLabel, path);
            return false;
        }

        // The lossless byte decoding keeps the untouched fields byte for byte,
        // even where they are not valid UTF-8.
        std::vector<std::wstring> fields = zep::results::SplitHistoryFields(zep::text::DecodeFileName(lines.back()));
        if (fields.size() != kHistoryFields) {
            g_log.e(L"%s Unexpected values count in scan history last line: %d", kUpdateLabel, fields.size());
            return false;
        }
        fields[2] = std::to_wstring(sentToCloud);
        fields[3] = std::to_wstring(artifactStatus);
        std::wstring joined = fields[0];
        for (std::size_t i = 1; i < fields.size(); ++i) joined += L',' + fields[i];
        lines.back() = zep::text::EncodeFileName(joined);

        if (!FileSystem::writeFileAtomically(path, zep::results::JoinHistoryText(lines))) {
            g_log.e(L"%s Unable to open file: %s for writing", kUpdateLabel, path);
            return false;
        }
        return true;
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kUpdateLabel, zep::CurrentExceptionText());
        return false;
    }
}

void DiagnosticsManager::DeviceHasComeOnline() {
    try {
        std::wstring path;
        const bool havePath = ScanHistoryPath(path);
        // A resumed upload never overlaps a scan: both use the manager's
        // per-scan state and the history file.
        std::lock_guard<std::mutex> lock(scanMutex);
        const auto deviceLock = zep::manager::LockDeviceScans();
        try {
            if (!havePath) {
                g_log.e(L"%s Unable to find the agent's data folder", kOnlineLabel);
            } else {
                const std::wstring line = GetLastLineInFile(path);
                ScanHistoryEntry entry;
                if (!ParseScanHistoryLine(line, entry)) {
                    g_log.d(L"%s Unable to parse last line in scan history: %s", kOnlineLabel, line);
                } else if (entry.sentToCloud == kStatusNetworkNotConnected) {
                    // Only the last scan is resumed; one that failed while
                    // online (1) is not retried here.
                    triggerType = static_cast<std::uint32_t>(entry.triggerType);
                    try {
                        RepopulateComponentResultValues();
                        UploadDiagnosticsResults();
                        UpdateStatusForLastLineInScanHistoryFile(path, GetFileUploadToCloudStatus(),
                                                                 artifactIncludedStatus);
                    } catch (...) {
                        g_log.e(L"%s: Exception Occurred: %ls", kOnlineLabel, zep::CurrentExceptionText());
                    }
                    // The next scan starts from clean state whatever happened.
                    ResetComponentResultValues();
                }
            }
        } catch (...) {
            g_log.e(L"%s: Exception Occurred: %ls", kOnlineLabel, zep::CurrentExceptionText());
        }
        try {
            ProcessDeferredPluginUploads();
        } catch (...) {
            g_log.e(L"%s: Exception Occurred: %ls", kOnlineLabel, zep::CurrentExceptionText());
        }
    } catch (...) {
        g_log.e(L"%s: Exception Occurred: %ls", kOnlineLabel, zep::CurrentExceptionText());
    }
}

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
