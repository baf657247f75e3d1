#include "serve/Endpoint.h"

#include <curl/curl.h>

#include <memory>

namespace zepdiag::serve {
namespace {

// The schemes a road accepts, with their default ports.
struct Road {
    const char* plain;  // null: TLS only
    int plainPort;
    const char* tls;
    int tlsPort;
    bool pathAllowed;
};
constexpr Road kBroker{"mqtt", 1883, "mqtts", 8883, false};
constexpr Road kUpload{nullptr, 0, "https", 443, true};

struct UrlDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct TextDeleter {
    void operator()(char* text) const { curl_free(text); }
};

std::optional<std::string> Part(CURLU* url, CURLUPart part) {
    char* raw = nullptr;
    if (curl_url_get(url, part, &raw, 0) != CURLUE_OK) return std::nullopt;
    const std::unique_ptr<char, TextDeleter> text(raw);
    return std::string(text.get());
}

std::string Accepted(const Road& road) {
    return road.plain != nullptr ? std::string(road.plain) + "://" + " or " + road.tls + "://"
                                 : std::string(road.tls) + "://";
}

// A user, a query or a fragment (or a path where none belongs) would be
// ignored silently; they are refused instead.
std::optional<Endpoint> Parse(const std::string& url, const Road& road, std::string& error) {
    const std::unique_ptr<CURLU, UrlDeleter> handle(curl_url());
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
        error = "not a URL: " + url;
        return std::nullopt;
    }
    const std::string scheme = Part(handle.get(), CURLUPART_SCHEME).value_or("");
    Endpoint endpoint;
    endpoint.tls = scheme == road.tls;
    if (!endpoint.tls && (road.plain == nullptr || scheme != road.plain)) {
        error = url + " does not start with " + Accepted(road);
        return std::nullopt;
    }
    const bool hasPath = Part(handle.get(), CURLUPART_PATH).value_or("/") != "/";
    if (Part(handle.get(), CURLUPART_USER) || Part(handle.get(), CURLUPART_QUERY) ||
        Part(handle.get(), CURLUPART_FRAGMENT) || (hasPath && !road.pathAllowed)) {
        error = url + " holds more than " + (road.pathAllowed ? "an address and a path" : "an address");
        return std::nullopt;
    }
    endpoint.host = Part(handle.get(), CURLUPART_HOST).value_or("");
    if (endpoint.host.size() > 2 && endpoint.host.front() == '[' && endpoint.host.back() == ']') {
        endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    }
    // libcurl accepts a port of digits only, up to 65535.
    const std::optional<std::string> port = Part(handle.get(), CURLUPART_PORT);
    endpoint.port = port ? std::stoi(*port) : endpoint.tls ? road.tlsPort : road.plainPort;
    if (endpoint.host.empty() || endpoint.port <= 0) {
        error = url + " names no host and port";
        return std::nullopt;
    }
    return endpoint;
}

}  // namespace

std::optional<Endpoint> ParseBrokerUrl(const std::string& url, std::string& error) { return Parse(url, kBroker, error); }

std::optional<Endpoint> ParseUploadUrl(const std::string& url, std::string& error) { return Parse(url, kUpload, error); }

std::string UploadUrlBelow(const std::string& apiBase) {
    std::string base = apiBase;
    while (!base.empty() && base.back() == '/') base.pop_back();
    return base + "/diagnostics/upload";
}

}  // namespace zepdiag::serve
