#include "Pki.h"

#include <fstream>
#include <stdexcept>
#include <vector>

#include "support/TempFolder.h"
#include "support/TestPlatform.h"
#include "support/posix/ChildProcess.h"

namespace zep::testing {
namespace {

namespace fs = std::filesystem;

// Extensions by role; the certificates live two days.
constexpr const char* kConfig = R"([req]
distinguished_name = dn
prompt = no
[dn]
CN = unused
[root]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[server]
basicConstraints = CA:FALSE
subjectAltName = IP:127.0.0.1, DNS:localhost
extendedKeyUsage = serverAuth
[client]
basicConstraints = CA:FALSE
extendedKeyUsage = clientAuth
)";

class Maker {
public:
    explicit Maker(fs::path dir) : dir_(std::move(dir)) { std::ofstream(dir_ / "openssl.cnf") << kConfig; }

    // A self-signed certificate with the extensions of `section`.
    KeyPair SelfSigned(const std::string& name, const std::string& subject, const std::string& section) {
        KeyPair pair{dir_ / (name + ".pem"), dir_ / (name + ".key")};
        Openssl({"req", "-x509", "-config", Config(), "-extensions", section, "-newkey", "ec", "-pkeyopt",
                 "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", pair.key, "-out", pair.cert, "-days", "2",
                 "-subj", subject});
        return pair;
    }

    // A certificate of `issuer` with the extensions of `section`.
    KeyPair Signed(const std::string& name, const std::string& subject, const std::string& section,
                   const KeyPair& issuer) {
        KeyPair pair{dir_ / (name + ".pem"), dir_ / (name + ".key")};
        const std::string request = (dir_ / (name + ".csr")).string();
        Openssl({"req", "-new", "-config", Config(), "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                 "-nodes", "-keyout", pair.key, "-out", request, "-subj", subject});
        Openssl({"x509", "-req", "-in", request, "-CA", issuer.cert, "-CAkey", issuer.key, "-set_serial",
                 std::to_string(++serial_), "-days", "2", "-extfile", Config(), "-extensions", section, "-out",
                 pair.cert});
        return pair;
    }

    std::string Sha1Thumbprint(const KeyPair& pair) {
        const fs::path out = dir_ / "thumbprint.txt";
        if (RunToEnd({"openssl", "x509", "-in", pair.cert, "-noout", "-fingerprint", "-sha1"}, out) != 0) {
            throw std::runtime_error("openssl x509 -fingerprint failed");
        }
        std::string text = ReadText(out);  // "SHA1 Fingerprint=AB:CD:...\n"
        text = text.substr(text.find('=') + 1);
        return text.substr(0, text.find_last_not_of("\r\n") + 1);
    }

private:
    std::string Config() const { return (dir_ / "openssl.cnf").string(); }

    void Openssl(std::vector<std::string> args) {
        args.insert(args.begin(), "openssl");
        if (RunToEnd(args, dir_ / "openssl.log") != 0) throw std::runtime_error("openssl " + args[1] + " failed");
    }

    fs::path dir_;
    int serial_ = 1000;
};

Pki Make() {
    Pki pki;
    pki.dir = MakeTempFolder("zep-pki-");
    Maker maker(pki.dir);
    pki.root = maker.SelfSigned("root", "/CN=Test Root", "root");
    pki.server = maker.Signed("server", "/CN=localhost", "server", pki.root);
    pki.client = maker.Signed("client", "/CN=device", "client", pki.root);
    pki.selfSigned = maker.SelfSigned("self-signed", "/CN=localhost", "server");
    pki.rootThumbprint = maker.Sha1Thumbprint(pki.root);
    return pki;
}

// Removes the folder when the test binary ends.
struct Owner {
    Pki pki = Make();
    ~Owner() {
        std::error_code code;
        fs::remove_all(pki.dir, code);
    }
};

}  // namespace

const Pki& TestPki() {
    static const Owner owner;
    return owner.pki;
}

}  // namespace zep::testing
