#pragma once

// Runs a loopback test server (tests/sts/serve.py under Debian's /usr/bin/python3) for the
// duration of a test. The server announces its port on standard output; the counters are read
// over the same pipe, and closing its standard input ends it.

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "sts/PythonServer.h"

namespace TestSts {

// The plain HTTP/TLS loopback server (tests/sts/serve.py).
class TestServer : public PythonServer {
  public:
    // args as for serve.py, e.g. {"--tls", "server"}.
    explicit TestServer(const std::vector<std::string>& args = {})
        : PythonServer("serve.py", args) {
        for (const std::string& arg : args) {
            m_tls = m_tls || arg == "--tls";
        }
    }

    std::string Url(const std::string& path, const std::string& host = "127.0.0.1") const {
        return std::string(m_tls ? "https://" : "http://") + host + ":" + std::to_string(Port()) +
               path;
    }

    // The server's counters: connections, handshakes, resumed (TLS sessions), requests.
    std::map<std::string, int> Stats() {
        std::map<std::string, int> stats;
        const std::string line = Command("stats");
        for (const char* name : {"connections", "handshakes", "resumed", "requests"}) {
            const size_t at = line.find(std::string("\"") + name + "\": ");
            if (at != std::string::npos) {
                stats[name] = std::stoi(line.substr(at + std::string(name).size() + 4));
            }
        }
        return stats;
    }

  private:
    bool m_tls = false;
};

// A loopback port that refuses connections: bound but never listening, and held so no other
// process can take it while the test runs.
class RefusedPort {
  public:
    RefusedPort() {
        m_socket = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (m_socket < 0 || bind(m_socket, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw std::runtime_error("cannot reserve a port");
        }
        m_port = ntohs(address.sin_port);
    }
    ~RefusedPort() { close(m_socket); }
    RefusedPort(const RefusedPort&) = delete;
    RefusedPort& operator=(const RefusedPort&) = delete;
    int Port() const { return m_port; }

  private:
    int m_socket = -1;
    int m_port = 0;
};

}  // namespace TestSts
