#include "serve/HttpsStorage.h"

#include <strings.h>
#include <sys/stat.h>

#include <filesystem>
#include <vector>

#include "platform/util/Strings.h"
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

using Form = std::unique_ptr<curl_mime, MimeDeleter>;
using Headers = std::unique_ptr<curl_slist, HeadersDeleter>;

// The metadata document, and the file, read from disk while it is sent.
Form NewForm(CURL* easy, const std::string& path, const std::string& name, const std::string& metadata) {
    Form form(curl_mime_init(easy));
    curl_mimepart* part = form ? curl_mime_addpart(form.get()) : nullptr;
    if (part == nullptr || curl_mime_name(part, "metadata") != CURLE_OK ||
        curl_mime_data(part, metadata.data(), metadata.size()) != CURLE_OK ||
        curl_mime_type(part, "application/json") != CURLE_OK) {
        return nullptr;
    }
    part = curl_mime_addpart(form.get());
    if (part == nullptr || curl_mime_name(part, "file") != CURLE_OK ||
        curl_mime_filedata(part, path.c_str()) != CURLE_OK || curl_mime_filename(part, name.c_str()) != CURLE_OK) {
        return nullptr;
    }
    return form;
}

Headers NewHeaders(const std::string& deviceId, bool unregistered, const std::string& token) {
    std::vector<std::string> lines{"X-Zep-Device-Id: " + deviceId,
                                   std::string("X-Zep-Unregistered: ") + (unregistered ? "true" : "false")};
    if (!token.empty()) lines.push_back("Authorization: Bearer " + token);
    Headers headers;
    for (const auto& line : lines) {
        curl_slist* list = curl_slist_append(headers.get(), line.c_str());
        if (list == nullptr) return nullptr;
        if (!headers) headers.reset(list);
    }
    return headers;
}

// "HTTP 429, Retry-After: 120", or libcurl's reason when no answer came.
std::string Outcome(CURLcode code, long status, const char* message, const Transfer& transfer) {
    if (status == 0) return *message != '\0' ? message : curl_easy_strerror(code);
    std::string outcome = "HTTP " + std::to_string(status);
    if (status == 429) outcome += ", Retry-After: " + (transfer.retryAfter.empty() ? "none" : transfer.retryAfter);
    return outcome;
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
    const Form form = easy ? NewForm(easy.get(), filePathUtf8, name, metadata) : nullptr;
    const Headers headers = NewHeaders(deviceId, unregisteredDevice, provisionToken);
    if (!form || !headers) return kLocalFailure;

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
    LogLine("upload: " + name + " to " + url_ + ": " + Outcome(code, status, message, transfer) + " (result " +
            std::to_string(result) + ")");
    return result;
}

}  // namespace zepdiag::serve
