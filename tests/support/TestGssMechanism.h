#pragma once

// The client side of the loopback STS's test GSS mechanism: the first leg is
// "HELLO <upn> <rounds>", each "CHALLENGE <round> <nonce>" is answered by
// "RESPONSE <round> <hex SHA-256 of nonce:password>", and after "WELCOME <upn>" nothing is left
// to say (an empty leg). Usable as the service's negotiation handler or leg by leg.

#include <basalt/Crypto.h>
#include <basalt/StringUtil.h>
#include <ssoClient/SecurityTokenService.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace TestSupport {

class TestGssMechanism : public SsoClient::NegotiationHandler {
  public:
    TestGssMechanism(std::string upn, std::string password, int rounds = 1)
        : m_hello("HELLO " + upn + " " + std::to_string(rounds)), m_password(std::move(password)) {}

    // The leg that answers serverLeg; the first call gives the first leg, whatever serverLeg is.
    std::vector<unsigned char> Answer(const std::vector<unsigned char>& serverLeg) {
        const bool first = serverLegs.empty();
        serverLegs.emplace_back(serverLeg.begin(), serverLeg.end());
        std::istringstream words(serverLegs.back());
        std::string kind, round, nonce;
        words >> kind >> round >> nonce;
        const std::string proof = nonce + ":" + m_password;
        const std::string leg =
            first ? m_hello
            : kind != "CHALLENGE"
                ? ""
                : "RESPONSE " + round + " " +
                      Basalt::StringUtil::ToHex(Basalt::Crypto::Digest(
                          Basalt::Crypto::DigestAlgorithm::Sha256, proof.data(), proof.size()));
        return {leg.begin(), leg.end()};
    }
    std::shared_ptr<std::vector<unsigned char>> NextLeg(
        const std::vector<unsigned char>& serverLeg) override {
        return std::make_shared<std::vector<unsigned char>>(Answer(serverLeg));
    }

    std::vector<std::string> serverLegs;  // every leg the service sent, as text

  private:
    const std::string m_hello;
    const std::string m_password;
};

}  // namespace TestSupport
