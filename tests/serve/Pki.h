// Certificates made once per test binary with the openssl command, in a
// temporary folder: a root CA with what it signs and a self-signed server
// certificate.
#pragma once

#include <filesystem>
#include <string>

namespace zep::testing {

struct KeyPair {
    std::filesystem::path cert;  // PEM
    std::filesystem::path key;   // PEM, unencrypted
};

struct Pki {
    std::filesystem::path dir;
    KeyPair root;        // "Test Root", a CA
    KeyPair server;      // CN=localhost, for 127.0.0.1 and localhost, signed by root
    KeyPair client;      // CN=device, for client authentication, signed by root
    KeyPair selfSigned;  // CN=localhost for 127.0.0.1, its own issuer
    std::string rootThumbprint;  // SHA-1 of root's DER as openssl prints it: "AB:CD:..."
};

// Made on first use; throws when a command fails (see dir/openssl.log).
const Pki& TestPki();

}  // namespace zep::testing
