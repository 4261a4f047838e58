#pragma once

// A loopback test server written in Python (run with Debian's /usr/bin/python3) as a child
// process: it announces "READY <port>" on standard output, answers one-line control commands over
// the same pipes, and exits when its standard input is closed.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace TestSts {

class PythonServer {
  public:
    // script relative to tests/sts, with its command-line arguments.
    PythonServer(const std::string& script, const std::vector<std::string>& args) {
        int toChild[2];
        int fromChild[2];
        // Close-on-exec, so no server started later inherits our pipes and keeps this one alive.
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
        std::vector<std::string> argv = {
            "/usr/bin/python3", std::string(SSOCLIENT_TEST_DATA_DIR) + "/../sts/" + script};
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
            m_pid = -1;
            Stop();
            throw std::runtime_error("cannot start /usr/bin/python3");
        }
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

    // Sends one control command and returns the one-line answer.
    std::string Command(const std::string& line) {
        std::fputs((line + "\n").c_str(), m_in);
        std::fflush(m_in);
        return ReadLine();
    }

  private:
    std::string ReadLine() {
        std::string line;
        int c = 0;
        while (m_out && (c = std::fgetc(m_out)) != EOF && c != '\n') {
            line.push_back(static_cast<char>(c));
        }
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
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
