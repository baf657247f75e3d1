// The storage agent of the service: each upload is one HTTPS POST of
// multipart/form-data to the upload address, with the parts
//   metadata  application/json, the metadata document as the module made it
//   file      the archive or the scan result, under its file name, streamed
//             from disk
// and the headers X-Zep-Device-Id, X-Zep-Unregistered (true|false) and, when
// the device uploads with a provisioning token, Authorization: Bearer <token>.
#pragma once

#include <memory>
#include <string>

#include <curl/curl.h>

#include "platform/env/DeviceEnv.h"
#include "platform/env/StorageEnv.h"
#include "serve/TlsPolicy.h"

namespace zepdiag::serve {

// The storage result of one answer: 0 for any 2xx; 10 (not connected) when
// the host could not be resolved or reached or the transfer timed out; 495
// when the server's certificate was refused; the status for any other HTTP
// answer (429 among them); 1 when the upload failed before an answer for
// another reason. Pure.
int StorageResultOf(CURLcode transfer, long httpStatus);

class HttpsStorage : public zep::platform::StorageEnv {
public:
    // `device` names the device in every request; `tls` applies to every
    // connection. Needs curl_global_init to have run.
    HttpsStorage(std::string url, TlsPolicy tls, std::shared_ptr<zep::platform::DeviceEnv> device);

    // Blocks for the whole transfer: at most 30 s to connect, and it gives up
    // when slower than 1 KiB/s for 60 s. Logs each answer.
    int UploadDiagResult(const std::string& filePathUtf8, bool unregisteredDevice, const std::string& metadata,
                         const std::string& provisionToken) override;

private:
    const std::string url_;
    const TlsPolicy tls_;
    const std::shared_ptr<zep::platform::DeviceEnv> device_;
    std::string host_;  // of url_, for the host name check
};

}  // namespace zepdiag::serve
