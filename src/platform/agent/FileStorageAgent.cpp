#include "platform/agent/FileStorageAgent.h"

#include "platform/env/Env.h"

FileStorageAgent* FileStorageAgent::GetInstance() {
    static FileStorageAgent instance;
    return &instance;
}

FileStorageAgent::StoragError FileStorageAgent::UploadDiagResult(const std::string& filePathUtf8,
                                                                 bool unregisteredDevice, const std::string& metadata,
                                                                 const std::string& provisionToken) {
    return static_cast<StoragError>(zep::platform::CurrentEnv()->storage->UploadDiagResult(
        filePathUtf8, unregisteredDevice, metadata, provisionToken));
}

void CriticalEventLogger::Log(int eventId, std::wstring text) { zep::platform::CurrentEnv()->events->Log(eventId, text); }
