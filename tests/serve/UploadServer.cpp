#include "UploadServer.h"

#include <httplib.h>

namespace zep::testing {

UploadServer::UploadServer(const KeyPair& identity, int port, const KeyPair* clientRoot)
    : server_(std::make_unique<httplib::SSLServer>(identity.cert.c_str(), identity.key.c_str(),
                                                   clientRoot != nullptr ? clientRoot->cert.c_str() : nullptr)) {
    server_->Post("/diagnostics/upload", [this](const httplib::Request& request, httplib::Response& response) {
        ReceivedUpload upload;
        upload.contentType = request.get_header_value("Content-Type");
        upload.deviceId = request.get_header_value("X-Zep-Device-Id");
        upload.unregistered = request.get_header_value("X-Zep-Unregistered");
        upload.authorization = request.get_header_value("Authorization");
        const httplib::MultipartFormData metadata = request.get_file_value("metadata");
        const httplib::MultipartFormData file = request.get_file_value("file");
        upload.metadata = metadata.content;
        upload.metadataType = metadata.content_type;
        upload.fileName = file.filename;
        upload.fileContent = file.content;
        std::lock_guard<std::mutex> lock(mutex_);
        upload.answer = answers_.empty() ? 200 : answers_.front();
        if (!answers_.empty()) answers_.pop_front();
        response.status = upload.answer;
        if (upload.answer == 429) response.set_header("Retry-After", "120");
        response.set_content("{}", "application/json");
        uploads_.push_back(std::move(upload));
        arrived_.notify_all();
    });
    if (port == 0) {
        port_ = server_->bind_to_any_port("127.0.0.1");
    } else if (server_->bind_to_port("127.0.0.1", port)) {
        port_ = port;
    }
    // Bound and listening already: connections wait in the backlog until the
    // thread accepts them.
    if (port_ > 0) thread_ = std::thread([this] { server_->listen_after_bind(); });
}

UploadServer::~UploadServer() {
    server_->stop();
    if (thread_.joinable()) thread_.join();
}

std::string UploadServer::Url() const {
    return "https://127.0.0.1:" + std::to_string(port_) + "/diagnostics/upload";
}

void UploadServer::AnswerNext(int status) {
    std::lock_guard<std::mutex> lock(mutex_);
    answers_.push_back(status);
}

std::vector<ReceivedUpload> UploadServer::Uploads() {
    std::lock_guard<std::mutex> lock(mutex_);
    return uploads_;
}

bool UploadServer::WaitForUploads(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, timeout, [&] { return uploads_.size() >= count; });
}

}  // namespace zep::testing
