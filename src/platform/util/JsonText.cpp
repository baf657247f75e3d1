#include "platform/util/JsonText.h"

#include <exception>
#include <memory>

namespace zep::json {

Parser::Parser(const ParseOptions& options) {
    try {
        Json::CharReaderBuilder builder;
        if (options.strict) Json::CharReaderBuilder::strictMode(&builder.settings_);
        builder["stackLimit"] = options.stackLimit;
        if (options.failIfExtra) builder["failIfExtra"] = true;
        reader_.reset(builder.newCharReader());
    } catch (...) {
        reader_.reset();  // every text then counts as malformed
    }
}

Parser::~Parser() = default;

bool Parser::Parse(std::string_view text, Json::Value& value, std::string* errors) {
    try {
        if (!reader_) {
            if (errors != nullptr) errors->clear();
            return false;
        }
        Json::Value parsed;
        std::string messages;
        if (!reader_->parse(text.data(), text.data() + text.size(), &parsed, &messages)) {
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

std::optional<Json::Value> Parser::ParseObject(std::string_view text) {
    Json::Value value;
    if (!Parse(text, value) || !value.isObject()) return std::nullopt;
    return value;
}

bool Parse(std::string_view text, Json::Value& value, std::string* errors, const ParseOptions& options) {
    return Parser(options).Parse(text, value, errors);
}

std::optional<Json::Value> ParseObject(std::string_view text, const ParseOptions& options) {
    return Parser(options).ParseObject(text);
}

}  // namespace zep::json
