#include "serve/Envelope.h"

#include <json/json.h>
#include <utf8.h>

#include "platform/util/JsonText.h"
#include "platform/util/Strings.h"

namespace zepdiag::serve {
namespace {

// The envelope is flat; its payload is a string, parsed later by the module.
constexpr unsigned kMaxDepth = 4;

bool ReadInt(const Json::Value& root, const char* key, int& value, std::string& error) {
    const Json::Value& member = root[key];
    if (!member.isInt()) {
        error = std::string(member.isNull() ? "no " : "not an integer: ") + key;
        return false;
    }
    value = member.asInt();
    return true;
}

bool ReadText(const Json::Value& root, const char* key, std::wstring& value, std::string& error) {
    const Json::Value& member = root[key];
    if (!member.isString()) {
        error = std::string(member.isNull() ? "no " : "not a string: ") + key;
        return false;
    }
    value = zep::text::FromUtf8(member.asString());
    return true;
}

}  // namespace

std::optional<ZEPNotificationData> ParseEnvelope(std::string_view bytes, std::string& error) {
    if (bytes.size() > kMaxEnvelopeBytes) {
        error = "larger than " + std::to_string(kMaxEnvelopeBytes) + " bytes";
        return std::nullopt;
    }
    if (utf8::find_invalid(bytes.begin(), bytes.end()) != bytes.end()) {
        error = "not UTF-8";
        return std::nullopt;
    }
    zep::json::ParseOptions options;
    options.stackLimit = kMaxDepth;
    options.failIfExtra = true;
    options.strict = true;  // a duplicate key would make the request ambiguous
    const std::optional<Json::Value> parsed = zep::json::ParseObject(bytes, options);
    if (!parsed) {
        error = "not one JSON object";
        return std::nullopt;
    }
    const Json::Value& root = *parsed;  // const: lookups must not add members

    int topicId = 0, eventState = 0;
    std::wstring actionType, messageType, payload;
    if (!ReadInt(root, "topicId", topicId, error) || !ReadInt(root, "eventState", eventState, error) ||
        !ReadText(root, "actionType", actionType, error) || !ReadText(root, "messageType", messageType, error) ||
        !ReadText(root, "payload", payload, error)) {
        return std::nullopt;
    }
    const Json::Value& qcp = root["isQCPNotification"];
    if (!qcp.isNull() && !qcp.isBool()) {
        error = "not a boolean: isQCPNotification";
        return std::nullopt;
    }
    return ZEPNotificationData(topicId, eventState, std::move(actionType), std::move(messageType), std::move(payload),
                               qcp.isBool() && qcp.asBool());
}

}  // namespace zepdiag::serve
