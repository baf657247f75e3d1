// The agent's file storage agent and critical-event logger as the module
// sees them.
#pragma once

#include <string>

class FileStorageAgent {
public:
    // The upload's result. Values beyond these are the storage agent's own
    // error codes and are only reported.
    enum StoragError : int {
        Success = 0,
        LocalRefusal = 1,
        NetworkNotConnected = 10,
        TooManyRequests = 429,
    };

    static FileStorageAgent* GetInstance();
    StoragError UploadDiagResult(const std::string& filePathUtf8, bool unregisteredDevice, const std::string& metadata,
                                 const std::string& provisionToken);
};

class CriticalEventLogger {
public:
    static void Log(int eventId, std::wstring text);
};
