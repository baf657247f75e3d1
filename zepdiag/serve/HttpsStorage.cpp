#include "serve/HttpsStorage.h"

#include <strings.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/Strings.h"
#include "serve/Endpoint.h"
#include "serve/ServeLog.h"

namespace zepdiag::serve {
namespace {

constexpr int kLocalFailure = 1;
constexpr int kNotConnected = 10;
constexpr int kCertificateRefused = 495;
constexpr long kConnectTimeoutSeconds = 30;
constexpr long kLowSpeedBytesPerSecond = 1024;
constexpr long kLowSpeedSeconds = 60;

struct EasyDeleter {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct MimeDeleter {
    void operator()(curl_mime* mime) const { curl_mime_free(mime); }
};
struct HeadersDeleter {
    void operator()(curl_slist* headers) const { curl_slist_free_all(headers); }
};

// What one transfer needs in libcurl's callbacks.
struct Transfer {
    const TlsPolicy* tls;
    const std::string* host;
    std::string retryAfter;
};

// Keeps the Retry-After header; libcurl hands over one header line per call.
std::size_t KeepRetryAfter(char* data, std::size_t size, std::size_t count, void* user) {
    const std::size_t bytes = size * count;
    static constexpr char kName[] = "retry-after:";
    constexpr std::size_t kLength = sizeof kName - 1;
    if (bytes > kLength && ::strncasecmp(data, kName, kLength) == 0) {
        const std::string line(data + kLength, bytes - kLength);
        const std::size_t begin = line.find_first_not_of(" \t");
        const std::size_t end = line.find_last_not_of(" \t\r\n");
        if (begin != std::string::npos) static_cast<Transfer*>(user)->retryAfter = line.substr(begin, end + 1 - begin);
    }
    return bytes;
}

// The answer's body says nothing the status does not.
std::size_t IgnoreBody(char*, std::size_t size, std::size_t count, void*) { return size * count; }

CURLcode ApplyTls(CURL*, void* context, void* user) {
    const auto* transfer = static_cast<Transfer*>(user);
    std::string error;
    try {
        if (ApplyTlsPolicy(static_cast<SSL_CTX*>(context), *transfer->tls, *transfer->host, error)) return CURLE_OK;
    } catch (...) {
        error = "out of memory";
    }
    LogLine("upload: TLS set-up failed: " + error);
    return CURLE_ABORTED_BY_CALLBACK;
}

bool IsRegularFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// A value that cannot end its header line and start another.
bool FitsInHeader(const std::string& value) {
    return value.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

std::string HostOf(const std::string& url) {
    std::string error;
    const std::optional<Endpoint> endpoint = ParseUploadUrl(url, error);
    return endpoint ? endpoint->host : std::string();
}

}  // namespace

int StorageResultOf(CURLcode transfer, long httpStatus) {
    // An answer the server gave counts, even when it cut the upload short.
    if (httpStatus >= 300 || (transfer == CURLE_OK && httpStatus >= 100)) {
        return httpStatus < 300 ? 0 : static_cast<int>(httpStatus);
    }
    switch (transfer) {
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_CONNECT:
        case CURLE_OPERATION_TIMEDOUT: return kNotConnected;
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_ISSUER_ERROR: return kCertificateRefused;
        default: return kLocalFailure;
    }
}

HttpsStorage::HttpsStorage(std::string url, TlsPolicy tls, std::shared_ptr<zep::platform::DeviceEnv> device)
    : url_(std::move(url)), tls_(std::move(tls)), device_(std::move(device)), host_(HostOf(url_)) {}

int HttpsStorage::UploadDiagResult(const std::string& filePathUtf8, bool unregisteredDevice,
                                   const std::string& metadata, const std::string& provisionToken) {
    const std::string name = std::filesystem::path(filePathUtf8).filename().string();
    const std::string deviceId = zep::text::ToUtf8(device_->DeviceId());
    if (!IsRegularFile(filePathUtf8) || !FitsInHeader(deviceId) || !FitsInHeader(provisionToken)) {
        LogLine("upload: " + name + " refused before sending: not a readable file, or a device id or token that "
                                    "does not fit in a header");
        return kLocalFailure;
    }

    const std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
    const std::unique_ptr<curl_mime, MimeDeleter> form(easy ? curl_mime_init(easy.get()) : nullptr);
    if (!form) return kLocalFailure;
    curl_mimepart* part = curl_mime_addpart(form.get());
    curl_mime_name(part, "metadata");
    curl_mime_data(part, metadata.data(), metadata.size());
    curl_mime_type(part, "application/json");
    part = curl_mime_addpart(form.get());
    curl_mime_name(part, "file");
    curl_mime_filedata(part, filePathUtf8.c_str());  // read from disk while sending
    curl_mime_filename(part, name.c_str());

    curl_slist* list = curl_slist_append(nullptr, ("X-Zep-Device-Id: " + deviceId).c_str());
    const std::unique_ptr<curl_slist, HeadersDeleter> headers(list);
    list = curl_slist_append(list, unregisteredDevice ? "X-Zep-Unregistered: true" : "X-Zep-Unregistered: false");
    if (!provisionToken.empty()) list = curl_slist_append(list, ("Authorization: Bearer " + provisionToken).c_str());

    Transfer transfer{&tls_, &host_, ""};
    char message[CURL_ERROR_SIZE] = "";
    CURL* handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_MIMEPOST, form.get());
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytesPerSecond);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, kLowSpeedSeconds);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, ApplyTls);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, KeepRetryAfter);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, IgnoreBody);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, message);

    const CURLcode code = curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    const int result = StorageResultOf(code, status);
    std::string outcome = status != 0 ? "HTTP " + std::to_string(status)
                                      : std::string(*message != '\0' ? message : curl_easy_strerror(code));
    if (status == 429) outcome += ", Retry-After: " + (transfer.retryAfter.empty() ? "none" : transfer.retryAfter);
    LogLine("upload: " + name + " to " + url_ + ": " + outcome + " (result " + std::to_string(result) + ")");
    return result;
}

}  // namespace zepdiag::serve
