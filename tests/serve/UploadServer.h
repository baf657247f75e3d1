// A real HTTPS upload endpoint inside the test binary (cpp-httplib over
// OpenSSL) on 127.0.0.1: it records every upload it receives, with its parts
// and headers, and answers with the statuses the test queues (200 by default).
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Pki.h"

namespace httplib {
class SSLServer;
}

namespace zep::testing {

struct ReceivedUpload {
    std::string contentType;  // of the request
    std::string deviceId;     // X-Zep-Device-Id
    std::string unregistered;  // X-Zep-Unregistered
    std::string authorization;
    std::string metadata, metadataType;
    std::string fileName, fileContent;
    int answer = 0;
};

class UploadServer {
public:
    // Listens at once with `identity`'s certificate; on `port`, or on a free
    // one when it is 0. `clientRoot`, when given, makes a client certificate
    // it issued a requirement.
    explicit UploadServer(const KeyPair& identity, int port = 0, const KeyPair* clientRoot = nullptr);
    ~UploadServer();

    int Port() const { return port_; }
    std::string Url() const;  // https://127.0.0.1:<port>/diagnostics/upload
    // The answer to the next upload not yet answered; 429 comes with
    // "Retry-After: 120".
    void AnswerNext(int status);
    std::vector<ReceivedUpload> Uploads();
    // Waits (bounded) until `count` uploads arrived.
    bool WaitForUploads(std::size_t count, std::chrono::milliseconds timeout);

private:
    std::unique_ptr<httplib::SSLServer> server_;
    int port_ = 0;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<int> answers_;
    std::vector<ReceivedUpload> uploads_;
};

}  // namespace zep::testing
