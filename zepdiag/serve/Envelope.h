// The notification envelope the cloud publishes on the device's topic: one
// UTF-8 JSON object that maps one to one onto a hub notification,
//   {"topicId": 1, "eventState": 0, "actionType": "run", "messageType": "getDiagnostics",
//    "payload": "<text>", "isQCPNotification": false}
// with the last key optional. Other keys are ignored.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/agent/ZEPNotificationData.h"

namespace zepdiag::serve {

// Larger messages are dropped unread: a request is a few hundred bytes.
constexpr std::size_t kMaxEnvelopeBytes = 256 * 1024;

// The notification in `bytes`, or nothing with the reason in `error` when the
// bytes are not such an envelope. Pure; never throws but for memory.
std::optional<ZEPNotificationData> ParseEnvelope(std::string_view bytes, std::string& error);

}  // namespace zepdiag::serve
