// The TLS rules of both roads to the cloud (MQTT and uploads), in one place:
// whom to trust, which certificate to show, and which chains to refuse even
// when they verify. Both libmosquitto and libcurl hand over an OpenSSL
// context; ApplyTlsPolicy sets it up.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zepdiag::serve {

struct TlsPolicy {
    // Trusted roots: a PEM file, else PEM text (the platform policy's chain),
    // else the system's trust store.
    std::string caFile;
    std::string caPem;
    // A client certificate (its chain) and key, PEM, for mutual TLS; both or neither.
    std::string certFile;
    std::string keyFile;
    // Accepted roots: SHA-1 thumbprints of the root certificate's DER, in hex
    // (any case, blanks and colons allowed). Empty: any trusted root.
    std::vector<std::string> rootThumbprints;
    // Accepted common names of the server's own certificate, in any letter
    // case. Empty: any.
    std::vector<std::string> leafNames;
    // A self-signed server certificate (or chain root) that is not trusted is
    // accepted; the host name and the lists above still apply.
    bool allowSelfSigned = false;
};

// Sets `context` up for connections to `host` (a name or an address): TLS 1.2
// or later, the trusted roots, the client certificate, the host name check
// (always), and a verification that refuses chains outside the lists, logging
// what was seen and what was expected. `policy` must outlive the context.
// False with the reason in `error` when a file or text cannot be used.
bool ApplyTlsPolicy(SSL_CTX* context, const TlsPolicy& policy, const std::string& host, std::string& error);

struct SslContextDeleter {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using SslContext = std::unique_ptr<SSL_CTX, SslContextDeleter>;

// A new client context with the policy applied; null with `error` set on failure.
SslContext NewClientContext(const TlsPolicy& policy, const std::string& host, std::string& error);

// A thumbprint as compared: hex digits in lower case, blanks and colons
// removed. Pure.
std::string NormalizeThumbprint(std::string_view text);

}  // namespace zepdiag::serve
