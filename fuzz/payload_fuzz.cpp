// The getDiagnostics payload as the hub delivers it: the request id and the
// targets taken from it, whether the id may name the scan, and the zip's name
// made from it. Every log line is formatted.
#include "DiagnosticScanner/DiagnosticsManager.h"
#include "FuzzSupport.h"
#include "artifacts/ZipNames.h"
#include "manager/ScanName.h"
#include "platform/util/Strings.h"
#include "platform/agent/ZEPNotificationData.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static DiagnosticsManager* const manager = [] {
        zep::fuzz::FormatLogLines();
        return new DiagnosticsManager();
    }();
    // Undecodable bytes become lone surrogates: the hub's text may hold any unit.
    ZEPNotificationData notification(3, 0, L"run", L"getDiagnostics",
                                     zep::text::DecodeFileName(zep::fuzz::Bytes(data, size)));
    DiagnosticsParams params;
    manager->ParseDiagnosticsParameters(notification, params);

    for (const auto& target : params.targets) ZEP_FUZZ_CHECK(zep::text::Lower(target) == target);
    if (zep::manager::IsSafeScanName(params.requestId)) {
        const std::wstring zip = zep::artifacts::ZipFolderName(L"LD-1", params.requestId);
        ZEP_FUZZ_CHECK(!zip.empty() && zip.find_first_of(L"\\/") == std::wstring::npos);
        ZEP_FUZZ_CHECK(zep::artifacts::SanitizeZipFileName(zip + L".zip") == zip + L".zip");
    }
    return 0;
}
