#pragma once

// Runs a loopback test server (tests/sts/serve.py under Debian's /usr/bin/python3) for the
// duration of a test. The server announces its port on standard output; the counters are read
// over the same pipe, and closing its standard input ends it.

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace TestSts {

class TestServer {
  public:
    // args as for serve.py, e.g. {"--tls", "server"}.
    explicit TestServer(std::vector<std::string> args = {}) {
        for (const std::string& arg : args) {
            m_tls = m_tls || arg == "--tls";
        }
        int toChild[2];
        int fromChild[2];
        // Close-on-exec, so no other server started later inherits our pipe and keeps us alive.
        if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
        posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
        posix_spawn_file_actions_addclose(&actions, toChild[1]);
        posix_spawn_file_actions_addclose(&actions, fromChild[0]);
        std::vector<std::string> argv = {"/usr/bin/python3",
                                         std::string(SSOCLIENT_TEST_DATA_DIR) + "/../sts/serve.py"};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargv;
        for (std::string& arg : argv) {
            cargv.push_back(arg.data());
        }
        cargv.push_back(nullptr);
        const int spawned = posix_spawn(&m_pid, cargv[0], &actions, nullptr, cargv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(toChild[0]);
        close(fromChild[1]);
        m_in = fdopen(toChild[1], "w");
        m_out = fdopen(fromChild[0], "r");
        if (spawned != 0) {
            Stop();
            throw std::runtime_error("cannot start /usr/bin/python3");
        }
        const std::string ready = ReadLine();
        if (ready.compare(0, 6, "READY ") != 0) {
            Stop();
            throw std::runtime_error("test server did not start: " + ready);
        }
        m_port = std::stoi(ready.substr(6));
    }
    ~TestServer() { Stop(); }
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    int Port() const { return m_port; }
    std::string Url(const std::string& path, const std::string& host = "127.0.0.1") const {
        return std::string(m_tls ? "https://" : "http://") + host + ":" + std::to_string(m_port) +
               path;
    }

    // The server's counters: connections, handshakes, resumed (TLS sessions), requests.
    std::map<std::string, int> Stats() {
        std::fputs("stats\n", m_in);
        std::fflush(m_in);
        std::map<std::string, int> stats;
        const std::string line = ReadLine();
        for (const char* name : {"connections", "handshakes", "resumed", "requests"}) {
            const size_t at = line.find(std::string("\"") + name + "\": ");
            if (at != std::string::npos) {
                stats[name] = std::stoi(line.substr(at + std::string(name).size() + 4));
            }
        }
        return stats;
    }

  private:
    std::string ReadLine() {
        char buffer[512];
        if (!m_out || !std::fgets(buffer, sizeof buffer, m_out)) {
            return "(no output)";
        }
        std::string line(buffer);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
            line.pop_back();
        }
        return line;
    }

    void Stop() {
        if (m_in) {
            std::fclose(m_in);  // end of input: the server exits
            m_in = nullptr;
        }
        if (m_out) {
            std::fclose(m_out);
            m_out = nullptr;
        }
        if (m_pid > 0) {
            int status = 0;
            waitpid(m_pid, &status, 0);
            m_pid = -1;
        }
    }

    pid_t m_pid = -1;
    FILE* m_in = nullptr;
    FILE* m_out = nullptr;
    int m_port = 0;
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
