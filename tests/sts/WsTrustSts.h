#pragma once

// Runs the loopback WS-Trust test STS (tests/sts/wstrust_sts.py under Debian's /usr/bin/python3)
// for the duration of a test. The server announces its port on standard output, answers control
// commands (see README.md, "Loopback test STS") one line each over the same pipes, and exits when
// its standard input is closed.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <basalt/StringUtil.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace TestSts {

class WsTrustSts {
  public:
    // Extra command-line options of wstrust_sts.py, e.g. {"--account", "dave:secret"}.
    explicit WsTrustSts(std::vector<std::string> options = {}) {
        int toChild[2];
        int fromChild[2];
        // Close-on-exec, so no server started later inherits our pipe and keeps this one alive.
        if (pipe2(toChild, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        if (pipe2(fromChild, O_CLOEXEC) != 0) {
            close(toChild[0]);
            close(toChild[1]);
            throw std::runtime_error("pipe failed");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
        posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
        std::vector<std::string> argv = {"/usr/bin/python3", Script()};
        argv.insert(argv.end(), options.begin(), options.end());
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
            m_pid = -1;
            Stop();
            throw std::runtime_error("cannot start /usr/bin/python3");
        }
        const std::string ready = ReadLine();
        if (ready.compare(0, 6, "READY ") != 0) {
            Stop();
            throw std::runtime_error("the test STS did not start: " + ready);
        }
        m_port = std::stoi(ready.substr(6));
    }
    ~WsTrustSts() { Stop(); }
    WsTrustSts(const WsTrustSts&) = delete;
    WsTrustSts& operator=(const WsTrustSts&) = delete;

    int Port() const { return m_port; }

    // The service URL; `path` may carry faults, e.g. "/fault/status:503/sts".
    std::string Url(const std::string& path = "/sts/STSService") const {
        return "https://localhost:" + std::to_string(m_port) + path;
    }

    // Sends one control command ("stats", "arm reset 1", "revoke _id", ...) and returns the
    // one-line answer.
    std::string Command(const std::string& line) {
        std::fputs((line + "\n").c_str(), m_in);
        std::fflush(m_in);
        return ReadLine();
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

  private:
    static std::string Script() {
        return std::string(SSOCLIENT_TEST_DATA_DIR) + "/../sts/wstrust_sts.py";
    }

    std::string ReadLine() {
        std::string line;
        int c = 0;
        while (m_out && (c = std::fgetc(m_out)) != EOF && c != '\n') {
            line.push_back(static_cast<char>(c));
        }
        return line.empty() && c == EOF ? "(no output)" : line;
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
};

}  // namespace TestSts
