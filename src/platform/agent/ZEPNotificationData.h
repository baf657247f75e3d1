// One notification of the agent's publish/subscribe hub.
#pragma once

#include <string>

class ZEPNotificationData {
public:
    ZEPNotificationData() = default;
    ZEPNotificationData(int topicId, int eventState, std::wstring actionType, std::wstring messageType,
                        std::wstring payload, bool qcp = false, bool extension = false)
        : topicId_(topicId), eventState_(eventState), actionType_(std::move(actionType)),
          messageType_(std::move(messageType)), payload_(std::move(payload)), qcp_(qcp),
          extension_(extension) {}

    int getTopicId() const { return topicId_; }
    int getEventState() const { return eventState_; }
    const std::wstring& getActionType() const { return actionType_; }
    const std::wstring& getMessageType() const { return messageType_; }
    const std::wstring& getPayload() const { return payload_; }
    bool isQCPNotification() const { return qcp_; }
    bool isExtensionNotification() const { return extension_; }

private:
    int topicId_ = 0;
    int eventState_ = 0;
    std::wstring actionType_;
    std::wstring messageType_;
    std::wstring payload_;
    bool qcp_ = false;
    bool extension_ = false;
};
