// Feeds arbitrary bytes to the certificate and private key parsers: the first byte picks the
// parser ("0" DER certificate, "1" first PEM certificate, "2" every PEM certificate, "3" PEM
// private key, tried with the passphrase of the test data), the rest is its input. What parses is
// then read through every accessor; a key signs, and what it signs must verify with a
// certificate it matches. Only InvalidArgumentException is expected; anything else, a crash or a
// sanitizer report is a finding. Returns 0 for accepted input, -1 for refused input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/Exception.h>

using namespace Basalt;
using namespace Basalt::Crypto;

namespace {

void Inspect(const Certificate& certificate, std::string_view data) {
    certificate.GetSubjectName();
    certificate.GetIssuerName();
    certificate.GetSerialNumber();
    certificate.GetThumbprintSha256();
    certificate.GetNotBefore().ToString();
    certificate.GetNotAfter().ToString();
    certificate.GetPublicKeyPem();
    const std::vector<unsigned char> garbage(data.begin(), data.begin() + data.size() % 80);
    certificate.VerifySignature(DigestAlgorithm::Sha256, data.data(), data.size(), garbage);
}

void Inspect(const PrivateKey& key, const std::vector<Ref<Certificate>>& certificates) {
    key.GetAlgorithmName();
    key.GetBits();
    const char message[] = "message";
    const auto signature = key.Sign(DigestAlgorithm::Sha256, message, sizeof message);
    for (const auto& certificate : certificates) {
        if (key.Matches(*certificate) &&
            !certificate->VerifySignature(DigestAlgorithm::Sha256, message, sizeof message,
                                          signature)) {
            std::abort();  // a key's signature that its own certificate does not verify
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return -1;
    }
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::vector<Ref<Certificate>> certificates(1);
    try {
        switch (data[0] % 4) {
            case 0:
                CreateCertificate(data + 1, size - 1, certificates[0]);
                break;
            case 1:
                CreateCertificateFromPem(input, certificates[0]);
                break;
            case 2:
                CreateCertificatesFromPem(input, certificates);
                break;
            default: {
                Ref<PrivateKey> key;
                CreatePrivateKeyFromPem(input, key, "correct-horse");
                std::vector<Ref<Certificate>> own;  // a key file may carry its certificate
                try {
                    CreateCertificatesFromPem(input, own);
                } catch (const InvalidArgumentException&) {
                }
                Inspect(*key, own);
                return 0;
            }
        }
    } catch (const InvalidArgumentException&) {
        return -1;  // refused: not worth keeping in the corpus
    }
    for (const auto& certificate : certificates) {
        Inspect(*certificate, input);
    }
    return 0;
}
