#include "results/HistoryFile.h"

#include "platform/CommonBase.h"
#include "results/ProblemSignature.h"

namespace zep::results {

std::vector<std::string> HistoryTailLines(const std::string& text, bool cut) {
    std::vector<std::string> lines = SplitHistoryText(text);
    if (cut && !lines.empty()) lines.erase(lines.begin());
    if (lines.size() > kHistoryLines) lines.erase(lines.begin(), lines.end() - kHistoryLines);
    return lines;
}

bool ReadHistoryLines(const std::wstring& path, std::vector<std::string>& lines) {
    std::string text;
    bool cut = false;
    if (!FileSystem::readFileTail(path, kHistoryReadBytes, text, cut)) return false;
    lines = HistoryTailLines(text, cut);
    return true;
}

}  // namespace zep::results
