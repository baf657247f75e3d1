#include "platform/util/WindowsCommandLine.h"

#include <algorithm>

namespace zep::platform {
namespace {

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t'; }

// One argument after the program name: as it is when nothing in it needs
// quoting, else in double quotes with each run of backslashes doubled where
// a quote follows it (an inner one, or the closing one) and each inner quote
// escaped.
void AppendArgument(std::wstring& line, const std::wstring& argument) {
    const bool plain = !argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos;
    if (plain) {
        line += argument;
        return;
    }
    line.push_back(L'"');
    std::size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"') {
            line.append(2 * backslashes + 1, L'\\');
        } else {
            line.append(backslashes, L'\\');
        }
        backslashes = 0;
        line.push_back(c);
    }
    line.append(2 * backslashes, L'\\');
    line.push_back(L'"');
}

}  // namespace

std::vector<std::wstring> SplitWindowsCommandLine(const std::wstring& commandLine) {
    try {
        std::vector<std::wstring> args;
        const std::size_t size = commandLine.size();
        std::size_t i = 0;
        // Leading blanks would make an empty program name, which cannot run.
        while (i < size && IsBlank(commandLine[i])) ++i;
        if (i == size) return args;

        // The program name knows no escapes: a path ends in backslashes.
        if (commandLine[i] == L'"') {
            ++i;
            std::size_t close = commandLine.find(L'"', i);
            if (close == std::wstring::npos) close = size;
            args.emplace_back(commandLine, i, close - i);
            i = std::min(close + 1, size);
        } else {
            std::size_t end = i;
            while (end < size && !IsBlank(commandLine[end])) ++end;
            args.emplace_back(commandLine, i, end - i);
            i = end;
        }

        std::wstring current;
        bool inQuotes = false;
        bool pending = false;  // an argument has begun (it may still be empty: "")
        while (i < size) {
            const wchar_t c = commandLine[i];
            if (IsBlank(c) && !inQuotes) {
                if (pending) {
                    args.push_back(std::move(current));
                    current.clear();
                    pending = false;
                }
                ++i;
                continue;
            }
            pending = true;
            if (c == L'\\') {
                std::size_t run = 0;
                while (i < size && commandLine[i] == L'\\') {
                    ++run;
                    ++i;
                }
                if (i < size && commandLine[i] == L'"') {
                    current.append(run / 2, L'\\');
                    if (run % 2 == 1) {
                        current.push_back(L'"');
                        ++i;
                    }
                    // After an even run the quote is an ordinary quote.
                } else {
                    current.append(run, L'\\');
                }
                continue;
            }
            if (c == L'"') {
                if (inQuotes && i + 1 < size && commandLine[i + 1] == L'"') {
                    current.push_back(L'"');
                    i += 2;
                } else {
                    inQuotes = !inQuotes;
                    ++i;
                }
                continue;
            }
            current.push_back(c);
            ++i;
        }
        if (pending) args.push_back(std::move(current));
        return args;
    } catch (...) {
        return {};
    }
}

std::optional<std::wstring> JoinWindowsCommandLine(const std::vector<std::wstring>& argv) {
    if (argv.empty() || argv.front().empty()) return std::nullopt;
    const std::wstring& program = argv.front();
    // The program name knows no escapes: quotes only group it.
    if (program.find(L'"') != std::wstring::npos) return std::nullopt;
    for (const auto& argument : argv) {
        if (argument.find(L'\0') != std::wstring::npos) return std::nullopt;
    }
    std::wstring line;
    const bool quote = std::any_of(program.begin(), program.end(), IsBlank);
    if (quote) line.push_back(L'"');
    line += program;
    if (quote) line.push_back(L'"');
    for (std::size_t i = 1; i < argv.size(); ++i) {
        line.push_back(L' ');
        AppendArgument(line, argv[i]);
    }
    return line;
}

std::wstring WithArguments(const std::wstring& commandLine, const std::wstring& arguments) {
    return arguments.empty() ? commandLine : commandLine + L' ' + arguments;
}

}  // namespace zep::platform
