#pragma once

// Runs the loopback WS-Trust test STS (tests/sts/wstrust_sts.py under Debian's /usr/bin/python3)
// for the duration of a test. The server announces its port on standard output, answers control
// commands (see README.md, "Loopback test STS") one line each over the same pipes, and exits when
// its standard input is closed.

#include <basalt/StringUtil.h>

#include "sts/PythonServer.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace TestSts {

// The WS-Trust test STS (tests/sts/wstrust_sts.py).
class WsTrustSts : public PythonServer {
  public:
    // Extra command-line options of wstrust_sts.py, e.g. {"--account", "dave:secret"}.
    explicit WsTrustSts(const std::vector<std::string>& options = {})
        : PythonServer("wstrust_sts.py", options) {}

    // The service URL; `path` may carry faults, e.g. "/fault/status:503/sts".
    std::string Url(const std::string& path = "/sts/STSService") const {
        return "https://localhost:" + std::to_string(Port()) + path;
    }

    // A counter of the "stats" answer ("connections", "handshakes", "resumed", "requests"), or
    // an operation's count ("issue-password", "renew", ...); -1 when absent.
    int Stat(const std::string& name) {
        const std::string line = Command("stats");
        const std::string key = "\"" + name + "\": ";
        const size_t at = line.find(key);
        return at == std::string::npos ? -1 : std::atoi(line.c_str() + at + key.size());
    }

    // Hands a SOAP envelope to the STS over the control channel (no HTTP, no fault injection)
    // and returns the reply's HTTP status; the reply envelope goes to `reply`. `cookie` is sent
    // as "name=value" and replaced by the cookie the reply sets, if any (the GSS legs need it).
    int Soap(const std::string& action, const std::string& envelope, std::string& reply,
             std::string* cookie = nullptr) {
        std::string line = "soap " + action + " " +
                           Basalt::StringUtil::Base64Encode(envelope.data(), envelope.size());
        if (cookie && !cookie->empty()) {
            line += " " + *cookie;
        }
        const std::string answer = Command(line);
        const size_t space = answer.find(' ', 6);
        if (answer.compare(0, 6, "REPLY ") != 0 || space == std::string::npos) {
            throw std::runtime_error("the test STS refused the envelope: " + answer);
        }
        const size_t cookieAt = answer.find(' ', space + 1);
        std::vector<unsigned char> bytes;
        Basalt::StringUtil::Base64Decode(answer.substr(space + 1, cookieAt - space - 1), bytes);
        reply.assign(bytes.begin(), bytes.end());
        if (cookie && cookieAt != std::string::npos) {
            *cookie = answer.substr(cookieAt + 1);
        }
        return std::stoi(answer.substr(6, space - 6));
    }

    // Files of the STS's fixtures (tests/data/sts).
    static std::string DataPath(const std::string& name) {
        return std::string(SSOCLIENT_TEST_DATA_DIR) + "/sts/" + name;
    }
};

}  // namespace TestSts
