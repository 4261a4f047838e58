#pragma once

// The loopback test servers of tests/sts, run under Debian's /usr/bin/python3 as child processes
// for the duration of a test: each prints "READY <port>", answers one-line commands over the same
// pipes and exits when its standard input closes.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace TestSts {

// The plain HTTP/TLS server (serve.py), args e.g. {"--tls", "server"}. Servers on loopback.py
// answer "stop" (refuse connections, holding the port, and close the open ones) and "start".
class TestServer {
  public:
    explicit TestServer(std::vector<std::string> args = {}, const std::string& script = "serve.py")
        : m_base(script != "serve.py"                  ? "https://localhost"
                 : !args.empty() && args[0] == "--tls" ? "https://127.0.0.1"
                                                       : "http://127.0.0.1") {
        int in[2], out[2];
        // Close-on-exec, so no server started later inherits our pipes and keeps this one alive.
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
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
        close(in[0]);
        close(out[1]);
        m_in = in[1];
        m_out = out[0];
        const std::string ready = ReadLine();
        if (ready.compare(0, 6, "READY ") != 0) {
            Stop();
            throw std::runtime_error(script + " did not start: " + ready);
        }
        std::istringstream(ready.substr(6)) >> m_port >> m_detail;
    }
    ~TestServer() { Stop(); }
    TestServer(const TestServer&) = delete;

    int Port() const { return m_port; }
    std::string Url(const std::string& path) const {
        return m_base + ":" + std::to_string(m_port) + path;
    }

    // Sends one command and returns the one-line answer.
    std::string Command(const std::string& line) {
        const std::string text = line + "\n";
        return write(m_in, text.data(), text.size()) < 0 ? "(write failed)" : ReadLine();
    }

    // The counters: connections, handshakes (TLS), requests, closed (by the client).
    std::map<std::string, int> Stats() {
        std::map<std::string, int> stats;
        std::istringstream line(Command("stats"));
        std::string name;
        for (int value = 0; line >> name >> value;) {
            stats[name] = value;
        }
        return stats;
    }

  protected:
    std::string m_detail;  // what the READY line holds after the port, if anything

  private:
    std::string ReadLine() {
        std::string line;
        for (char c = 0; read(m_out, &c, 1) == 1 && c != '\n';) {
            line.push_back(c);
        }
        return line.empty() ? "(no output)" : line;
    }

    void Stop() {
        close(m_in);  // end of input: the server exits
        close(m_out);
        if (m_pid > 0) {
            waitpid(m_pid, nullptr, 0);
        }
    }

    const std::string m_base;
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    int m_port = 0;
};

// The WS-Trust STS (wstrust_sts.py); it also answers "revoke <assertion ID>".
struct WsTrustSts : TestServer {
    explicit WsTrustSts(const std::vector<std::string>& args = {})
        : TestServer(args, "wstrust_sts.py") {}
    std::string Url(const std::string& path = "/sts/STSService") const {
        return TestServer::Url(path);
    }
};

// A throw-away MIT KDC for the realm SSOCLIENT.TEST (kdc.py); Dir() holds its krb5.conf, the
// keytabs and caches. "stop" and "start" stop and start the KDC itself.
struct Kdc : TestServer {
    Kdc() : TestServer({}, "kdc.py") {}
    std::string Dir() const { return m_detail; }
};

}  // namespace TestSts
