// Parsing of JSON text for every document the module reads (exported for its
// hosts too). JsonCpp throws past its nesting limit; here that is one more
// malformed document.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <json/json.h>

#include "DiagnosticScanner/Export.h"

namespace zep::json {

struct ParseOptions {
    unsigned stackLimit = 1000;  // deepest nesting accepted
    bool failIfExtra = false;    // text after the value makes the document malformed
    bool strict = false;         // JsonCpp's strict mode (no duplicate keys, no comments, ...)
};

// A reader made once for many texts: making one costs more than parsing a
// short text. Never throws.
class Parser {
public:
    explicit Parser(const ParseOptions& options = {});
    ~Parser();
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    // As the free Parse below.
    bool Parse(std::string_view text, Json::Value& value, std::string* errors = nullptr);
    std::optional<Json::Value> ParseObject(std::string_view text);

private:
    std::unique_ptr<Json::CharReader> reader_;
};

// Parses `text` into `value`. False, with the reader's message in `errors`
// when given and `value` unchanged, when the text is not one JSON value.
// Never throws.
DIAGSCANNER_API bool Parse(std::string_view text, Json::Value& value, std::string* errors = nullptr,
                           const ParseOptions& options = {});

// The text's value when it parses and is an object.
DIAGSCANNER_API std::optional<Json::Value> ParseObject(std::string_view text, const ParseOptions& options = {});

}  // namespace zep::json
