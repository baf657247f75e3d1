// The agent's file storage: uploads to the cloud.
#pragma once

#include <string>

namespace zep::platform {

class StorageEnv {
public:
    virtual ~StorageEnv() = default;
    // Uploads the file at `filePathUtf8` with its metadata document. An
    // unregistered device uploads with `provisionToken` (may be empty).
    // Returns 0 on success, 10 when the network is not connected, 429 when
    // the service asks to come back later, any other value for other errors.
    virtual int UploadDiagResult(const std::string& filePathUtf8, bool unregisteredDevice, const std::string& metadata,
                                 const std::string& provisionToken) = 0;
};

// The platform's critical-event log.
class EventEnv {
public:
    virtual ~EventEnv() = default;
    // Records one event; fire and forget.
    virtual void Log(int eventId, const std::wstring& text) = 0;
};

}  // namespace zep::platform
