#include "platform/util/JsonText.h"

#include <exception>
#include <memory>

namespace zep::json {

bool Parse(std::string_view text, Json::Value& value, std::string* errors, const ParseOptions& options) {
    try {
        Json::CharReaderBuilder builder;
        if (options.strict) Json::CharReaderBuilder::strictMode(&builder.settings_);
        builder["stackLimit"] = options.stackLimit;
        if (options.failIfExtra) builder["failIfExtra"] = true;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value parsed;
        std::string messages;
        if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &messages)) {
            if (errors != nullptr) *errors = messages;
            return false;
        }
        value = std::move(parsed);
        return true;
    } catch (const std::exception& ex) {
        if (errors != nullptr) *errors = ex.what();
    } catch (...) {
        if (errors != nullptr) errors->clear();
    }
    return false;
}

std::optional<Json::Value> ParseObject(std::string_view text, const ParseOptions& options) {
    Json::Value value;
    if (!Parse(text, value, nullptr, options) || !value.isObject()) return std::nullopt;
    return value;
}

}  // namespace zep::json
