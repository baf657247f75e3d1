#include "results/ResultFormat.h"

#include <cmath>
#include <iomanip>
#include <sstream>

#include <fmt/printf.h>
#include <fmt/xchar.h>

#include "platform/util/Strings.h"

namespace zep::results {

std::wstring Float2Wstring(float value, const std::wstring& format) {
    constexpr std::size_t kBufferSize = 64;
    std::wstring text;
    try {
        text = fmt::sprintf(std::wstring_view(format), static_cast<double>(value));
    } catch (...) {
        return std::wstring();
    }
    if (text.size() > kBufferSize - 1) text.resize(kBufferSize - 1);
    return text;
}

std::wstring FormatExecutionTime(float seconds) {
    const float milliseconds = std::ceil(seconds * 1000.0f);
    const auto rounded = static_cast<float>(static_cast<double>(milliseconds) / 1000.0);
    return Float2Wstring(rounded, L"%.3f");
}

std::wstring truncateToDecimalPlaces(float value, int places) {
    std::wostringstream stream;
    stream << std::fixed << std::setprecision(places) << value;
    return stream.str();
}

std::wstring ResultTypeText(int resultType) {
    switch (resultType) {
        case 0: return L"Complete";
        case 1: return L"ErrorTimeOut";
        default: return L"ErrorGeneral";
    }
}

std::wstring TriggerTypeText(std::uint32_t triggerType) {
    switch (triggerType) {
        case 0: return L"Manual";
        case 2: return L"Mqtt";
        default: return L"Scheduled";
    }
}

Json::Value TestsToJson(const std::vector<zep::diagnostics::Tests>& tests) {
    Json::Value array(Json::arrayValue);
    for (const auto& test : tests) {
        Json::Value entry(Json::objectValue);
        entry["id"] = text::ToUtf8(test.id);
        entry["friendlyName"] = text::ToUtf8(test.name);
        entry["expected"] = text::ToUtf8(test.expected);
        entry["actual"] = text::ToUtf8(test.actual);
        entry["result"] = test.actual == test.expected ? "pass" : "fail";
        array.append(std::move(entry));
    }
    return array;
}

std::string WriteDocument(const Json::Value& document) {
    Json::StreamWriterBuilder builder;
    return Json::writeString(builder, document);
}

}  // namespace zep::results
