// Hashing with the system's own cryptography: OpenSSL on Linux, CNG on
// Windows. The signature checks of provisioning tokens (Jwt.h) come from the
// same place.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace zep::crypto {

// SHA-256 of data fed in pieces. Never throws.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void Update(std::string_view data);
    // The digest as 64 lower-case hexadecimal characters; empty when the
    // system's hash failed. The object is spent afterwards.
    std::string FinalHex();

private:
    struct State;
    std::unique_ptr<State> state_;
};

// One-shot SHA-256 in lower-case hexadecimal; empty on failure.
std::string Sha256Hex(std::string_view data);

}  // namespace zep::crypto
