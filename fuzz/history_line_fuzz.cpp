// A scan history file's tail and its lines: cutting the text into lines, the
// six fields of a line and their numbers, and the rewrite of the last line's
// status fields.
#include <algorithm>

#include "DiagnosticScanner/DiagnosticsManager.h"
#include "FuzzSupport.h"
#include "platform/util/Strings.h"
#include "results/HistoryFile.h"
#include "results/ProblemSignature.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static DiagnosticsManager* const manager = new DiagnosticsManager();
    const std::string text(zep::fuzz::Bytes(data, size));
    const std::vector<std::string> lines = zep::results::HistoryTailLines(text);
    ZEP_FUZZ_CHECK(lines.size() <= zep::results::kHistoryLines);
    // Written back, the lines read the same (a line that ends in a carriage
    // return of its own loses it: the module writes none such).
    const bool bareCarriageReturn = std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return !line.empty() && line.back() == '\r';
    });
    if (!bareCarriageReturn) {
        ZEP_FUZZ_CHECK(zep::results::SplitHistoryText(zep::results::JoinHistoryText(lines)) == lines);
    }

    for (const std::string& line : lines) {
        const std::wstring wide = zep::text::DecodeFileName(line);
        DiagnosticsManager::ScanHistoryEntry entry;
        const bool parsed = manager->ParseScanHistoryLine(wide, entry);
        const std::vector<std::wstring> fields = zep::results::SplitHistoryFields(wide);
        ZEP_FUZZ_CHECK(!parsed || fields.size() == 6);
        if (parsed) ZEP_FUZZ_CHECK(entry.triggerType == 0 || entry.triggerType == 1 || entry.triggerType == 2);
        // The status rewrite keeps the other fields byte for byte.
        if (fields.size() == 6) {
            std::wstring joined = fields[0];
            for (std::size_t i = 1; i < fields.size(); ++i) joined += L',' + fields[i];
            ZEP_FUZZ_CHECK(zep::text::EncodeFileName(joined) == line ||
                           zep::text::EncodeFileName(joined + L",") == line);
        }
    }
    return 0;
}
