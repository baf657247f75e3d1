// The agent platform's declarations that the exported interface is written
// in: the DWORD width, the extension module's elevations and the storage
// agent's upload result. On Windows the agent's own headers declare them the
// same way; here they are declared once, so that every header of the
// interface compiles on its own.
#pragma once

#include <cstdint>

// windows.h's own type (32 bits on Windows, where long is), declared without
// windows.h so that its macros reach no file of ours that does not ask.
#ifdef _WIN32
using DWORD = unsigned long;
#else
using DWORD = std::uint32_t;
#endif

#include <string>

namespace zep::platform {

// The elevation of a plug-in instance, by the extension module's values.
enum ElevationType : int { None = 0, Elevated = 1, User = 2 };

}  // namespace zep::platform

// The agent's file storage agent, through which diagnostics are uploaded.
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
