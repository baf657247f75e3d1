#include "serve/TlsPolicy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <strings.h>

#include <algorithm>
#include <cctype>

#include "serve/ServeLog.h"

namespace zepdiag::serve {
namespace {

std::string OpenSslError() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "unknown error";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

std::string Thumbprint(const X509* certificate) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (X509_digest(certificate, EVP_sha1(), digest, &length) != 1) return "";
    char* hex = OPENSSL_buf2hexstr(digest, length);  // "AB:CD:..."
    const std::string thumbprint = hex != nullptr ? NormalizeThumbprint(hex) : std::string();
    OPENSSL_free(hex);
    return thumbprint;
}

std::string CommonName(X509* certificate) {
    X509_NAME* subject = X509_get_subject_name(certificate);
    const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (index < 0) return "";
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
    if (length < 0) return "";
    std::string name(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    // "good.example\0.evil.example" must not pass for its first part.
    return name.find('\0') == std::string::npos ? name : std::string();
}

bool EqualsIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string Joined(const std::vector<std::string>& items) {
    std::string text;
    for (const auto& item : items) text += (text.empty() ? "" : ", ") + item;
    return text;
}

// The host the connection was meant for, as the host name check knows it.
std::string PeerName(X509_STORE_CTX* store) {
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(store);
    if (const char* host = X509_VERIFY_PARAM_get0_host(param, 0)) return host;
    char* address = X509_VERIFY_PARAM_get1_ip_asc(param);
    const std::string name = address != nullptr ? address : "the server";
    OPENSSL_free(address);
    return name;
}

int AcceptSelfSigned(int ok, X509_STORE_CTX* store) {
    if (ok == 1) return 1;
    const int error = X509_STORE_CTX_get_error(store);
    return error == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT || error == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN ? 1 : 0;
}

int Refuse(X509_STORE_CTX* store, const std::string& why) {
    LogLine("TLS: refused " + PeerName(store) + ": " + why);
    X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
}

// Replaces OpenSSL's verification of the server's chain: the usual checks,
// the host name among them, then the policy's lists. Called from C: nothing
// may be thrown through it.
int VerifyChain(X509_STORE_CTX* store, void* argument) {
    try {
        const TlsPolicy& policy = *static_cast<const TlsPolicy*>(argument);
        if (policy.allowSelfSigned) X509_STORE_CTX_set_verify_cb(store, AcceptSelfSigned);
        if (X509_verify_cert(store) != 1) {
            LogLine("TLS: the certificate of " + PeerName(store) +
                    " did not verify: " + X509_verify_cert_error_string(X509_STORE_CTX_get_error(store)));
            return 0;
        }
        STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(store);
        const int length = chain != nullptr ? sk_X509_num(chain) : 0;
        if (length == 0) return Refuse(store, "no certificate chain");
        if (!policy.rootThumbprints.empty()) {
            std::vector<std::string> pinned;
            for (const auto& pin : policy.rootThumbprints) pinned.push_back(NormalizeThumbprint(pin));
            const std::string seen = Thumbprint(sk_X509_value(chain, length - 1));
            if (std::find(pinned.begin(), pinned.end(), seen) == pinned.end()) {
                return Refuse(store, "root certificate thumbprint " + seen + " is not pinned (expected " +
                                         Joined(pinned) + ")");
            }
        }
        if (!policy.leafNames.empty()) {
            const std::string name = CommonName(sk_X509_value(chain, 0));
            const auto listed = [&](const std::string& accepted) { return EqualsIgnoringCase(accepted, name); };
            if (std::none_of(policy.leafNames.begin(), policy.leafNames.end(), listed)) {
                return Refuse(store, "server certificate name \"" + name + "\" is not listed (expected " +
                                         Joined(policy.leafNames) + ")");
            }
        }
        // An accepted self-signed certificate leaves its error behind, which
        // libcurl would read as a failed verification.
        X509_STORE_CTX_set_error(store, X509_V_OK);
        return 1;
    } catch (...) {
        return 0;
    }
}

bool AddPemCertificates(X509_STORE* store, const std::string& pem, std::string& error) {
    BIO* input = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    int added = 0;
    while (input != nullptr) {
        X509* certificate = PEM_read_bio_X509(input, nullptr, nullptr, nullptr);
        if (certificate == nullptr) break;
        if (X509_STORE_add_cert(store, certificate) == 1) ++added;
        X509_free(certificate);
    }
    BIO_free(input);
    ERR_clear_error();  // the end of the text reads as an error
    if (added == 0) error = "the platform policy's certificate chain holds no certificate";
    return added > 0;
}

bool LoadTrust(SSL_CTX* context, const TlsPolicy& policy, std::string& error) {
    if (policy.caFile.empty() && policy.caPem.empty()) {
        if (SSL_CTX_set_default_verify_paths(context) == 1) return true;
        error = "cannot load the system's trusted certificates: " + OpenSslError();
        return false;
    }
    // A store of its own replaces whatever the library had loaded: only the
    // given roots are trusted.
    X509_STORE* store = X509_STORE_new();
    if (store == nullptr) {
        error = OpenSslError();
        return false;
    }
    SSL_CTX_set_cert_store(context, store);
    if (policy.caFile.empty()) return AddPemCertificates(store, policy.caPem, error);
    if (X509_STORE_load_file(store, policy.caFile.c_str()) == 1) return true;
    error = "cannot read the CA file " + policy.caFile + ": " + OpenSslError();
    return false;
}

bool LoadClientCertificate(SSL_CTX* context, const TlsPolicy& policy, std::string& error) {
    if (policy.certFile.empty() && policy.keyFile.empty()) return true;
    if (SSL_CTX_use_certificate_chain_file(context, policy.certFile.c_str()) == 1 &&
        SSL_CTX_use_PrivateKey_file(context, policy.keyFile.c_str(), SSL_FILETYPE_PEM) == 1 &&
        SSL_CTX_check_private_key(context) == 1) {
        return true;
    }
    error = "cannot use the client certificate " + policy.certFile + " with the key " + policy.keyFile + ": " +
            OpenSslError();
    return false;
}

bool CheckHostName(SSL_CTX* context, const std::string& host, std::string& error) {
    X509_VERIFY_PARAM* param = SSL_CTX_get0_param(context);
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    unsigned char address[sizeof(in6_addr)];
    const bool isAddress =
        ::inet_pton(AF_INET, host.c_str(), address) == 1 || ::inet_pton(AF_INET6, host.c_str(), address) == 1;
    if ((isAddress ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str())
                   : X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size())) == 1) {
        return true;
    }
    error = "cannot check the host name " + host + ": " + OpenSslError();
    return false;
}

}  // namespace

bool ApplyTlsPolicy(SSL_CTX* context, const TlsPolicy& policy, const std::string& host, std::string& error) {
    ERR_clear_error();
    if (SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) != 1) {
        error = OpenSslError();
        return false;
    }
    if (!LoadTrust(context, policy, error) || !LoadClientCertificate(context, policy, error) ||
        !CheckHostName(context, host, error)) {
        return false;
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, VerifyChain, const_cast<TlsPolicy*>(&policy));
    return true;
}

SslContext NewClientContext(const TlsPolicy& policy, const std::string& host, std::string& error) {
    SslContext context(SSL_CTX_new(TLS_client_method()));
    if (!context) {
        error = OpenSslError();
        return nullptr;
    }
    if (!ApplyTlsPolicy(context.get(), policy, host, error)) return nullptr;
    return context;
}

std::string NormalizeThumbprint(std::string_view text) {
    std::string normal;
    for (const char c : text) {
        if (c == ':' || std::isspace(static_cast<unsigned char>(c))) continue;
        normal += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return normal;
}

}  // namespace zepdiag::serve
