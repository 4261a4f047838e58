#pragma once

// The loopback test servers of tests/sts, run under Debian's /usr/bin/python3 as child processes
// for the duration of a test: each prints "READY <port>", answers one-line commands over the same
// pipes and exits when its standard input closes.

#include <fcntl.h>
#include <netinet/in.h>
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

class PythonServer {
  public:
    // base: scheme and host of Url().
    PythonServer(const std::string& script, std::vector<std::string> args, std::string base)
        : m_base(std::move(base)) {
        int toChild[2] = {-1, -1};
        int fromChild[2] = {-1, -1};
        // Close-on-exec, so no server started later inherits our pipes and keeps this one alive.
        if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
        posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
        args.insert(args.begin(),
                    {"/usr/bin/python3", SSOCLIENT_TEST_DATA_DIR "/../sts/" + script});
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        if (posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            m_pid = -1;  // the READY line below then never comes
        }
        posix_spawn_file_actions_destroy(&actions);
        close(toChild[0]);
        close(fromChild[1]);
        m_in = fdopen(toChild[1], "w");
        m_out = fdopen(fromChild[0], "r");
        const std::string ready = ReadLine();
        if (ready.compare(0, 6, "READY ") != 0) {
            Stop();
            throw std::runtime_error(script + " did not start: " + ready);
        }
        m_port = std::stoi(ready.substr(6));
    }
    ~PythonServer() { Stop(); }
    PythonServer(const PythonServer&) = delete;
    PythonServer& operator=(const PythonServer&) = delete;

    int Port() const { return m_port; }
    std::string Url(const std::string& path) const {
        return m_base + ":" + std::to_string(m_port) + path;
    }

    // Sends one command and returns the one-line answer.
    std::string Command(const std::string& line) {
        std::fputs((line + "\n").c_str(), m_in);
        std::fflush(m_in);
        return ReadLine();
    }

    // The counters: connections, handshakes, resumed (TLS sessions), requests.
    std::map<std::string, int> Stats() {
        std::map<std::string, int> stats;
        const std::string line = Command("stats");
        for (const std::string name : {"connections", "handshakes", "resumed", "requests"}) {
            const size_t at = line.find("\"" + name + "\": ");
            stats[name] =
                at == std::string::npos ? -1 : std::stoi(line.substr(at + name.size() + 4));
        }
        return stats;
    }

  private:
    std::string ReadLine() {
        std::string line;
        for (int c = 0; (c = std::fgetc(m_out)) != EOF && c != '\n';) {
            line.push_back(static_cast<char>(c));
        }
        return line.empty() ? "(no output)" : line;
    }

    void Stop() {
        std::fclose(m_in);  // end of input: the server exits
        std::fclose(m_out);
        if (m_pid > 0) {
            waitpid(m_pid, nullptr, 0);
        }
    }

    std::string m_base;
    pid_t m_pid = -1;
    FILE* m_in = nullptr;
    FILE* m_out = nullptr;
    int m_port = 0;
};

// The plain HTTP/TLS server (serve.py), args e.g. {"--tls", "server"}.
struct TestServer : PythonServer {
    explicit TestServer(const std::vector<std::string>& args = {})
        : PythonServer(
              "serve.py", args,
              !args.empty() && args[0] == "--tls" ? "https://127.0.0.1" : "http://127.0.0.1") {}
};

// The WS-Trust STS (wstrust_sts.py); it also answers "revoke <assertion ID>".
struct WsTrustSts : PythonServer {
    explicit WsTrustSts(const std::vector<std::string>& args = {})
        : PythonServer("wstrust_sts.py", args, "https://localhost") {}
    std::string Url(const std::string& path = "/sts/STSService") const {
        return PythonServer::Url(path);
    }
};

// A loopback port that refuses connections: bound but never listening, and held so that no other
// process takes it while the test runs.
class RefusedPort {
  public:
    RefusedPort() : m_socket(socket(AF_INET, SOCK_STREAM, 0)) {
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
    int m_socket;
    int m_port = 0;
};

}  // namespace TestSts
