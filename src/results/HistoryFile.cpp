#include "results/HistoryFile.h"

#include "platform/agent/CommonBase.h"
#include "results/ProblemSignature.h"

namespace zep::results {

std::vector<std::string> HistoryTailLines(const std::string& text) {
    std::vector<std::string> lines = SplitHistoryText(text);
    if (lines.size() > kHistoryLines) lines.erase(lines.begin(), lines.end() - kHistoryLines);
    return lines;
}

bool ReadHistoryLines(const std::wstring& path, std::vector<std::string>& lines) {
    std::string text;
    // The reader starts at a line: a line cut by the byte cap is left out.
    if (!FileSystem::readFileTail(path, kHistoryReadBytes, text)) return false;
    lines = HistoryTailLines(text);
    return true;
}

}  // namespace zep::results
