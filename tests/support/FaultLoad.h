#pragma once

// Many asynchronous acquisitions at once against loopback listeners that misbehave on purpose:
// an STS that answers tokens and SOAP faults and is stopped in the middle of every wave and
// restarted for the next, and a rogue listener that sends garbage, a truncated reply or nothing
// at all. Shared by the short load test and the long-running benchmark.

#include <basalt/Exception.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "internal/service/SecurityTokenServiceImpl.h"
#include "internal/transport/HttpsClient.h"
#include "support/FakeTransport.h"
#include "support/SamlAssertionGenerator.h"

namespace TestSupport {

// A loopback HTTP listener on its own thread that answers by request path: "/ok" an issued token,
// "/fault" a SOAP fault (status 500), "/garbage" bytes that are no HTTP, "/truncated" a reply cut
// short, "/hang" nothing. SetUp(false) closes the listener and every connection, as a stopped
// server does; SetUp(true) listens again on the same port.
class FaultyServer {
  public:
    explicit FaultyServer(const std::string& token) {
        const std::string reply = IssueReply(token);
        const std::string fault = SoapFault("wst:FailedAuthentication", "Invalid credentials");
        m_replies = {{"/ok", Http(200, reply, reply.size())},
                     {"/fault", Http(500, fault, fault.size())},
                     {"/truncated", Http(200, reply.substr(0, 999), reply.size())},
                     {"/garbage", "\x16\x03\x01 not HTTP at all\r\n\r\n"}};
        Listen();
        m_thread = std::thread([this] { Serve(); });
    }
    ~FaultyServer() {
        Command(kQuit);
        m_thread.join();
        close(m_wake);
        close(m_ack);
    }
    std::string Url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(m_port) + path;
    }
    // Returns once the listener is (or is no longer) accepting.
    void SetUp(bool up) { Command(up ? kStart : kStop); }

  private:
    enum : eventfd_t { kStart = 1, kStop, kQuit };

    void Command(eventfd_t command) {
        eventfd_t done = 0;
        eventfd_write(m_wake, command);
        eventfd_read(m_ack, &done);  // blocks until the server thread has carried it out
    }
    void Listen() {
        sockaddr_in address{AF_INET, htons(m_port), {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int yes = 1;
        setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (bind(m_listener, generic, size) != 0 || listen(m_listener, 512) != 0 ||
            getsockname(m_listener, generic, &size) != 0) {
            throw std::runtime_error("cannot listen on loopback");
        }
        m_port = ntohs(address.sin_port);
    }
    void Serve() {
        for (eventfd_t command = 0; command != kQuit;) {
            std::vector<pollfd> ready{{m_wake, POLLIN, 0}, {m_listener, POLLIN, 0}};
            for (const auto& connection : m_connections) {
                ready.push_back({connection.first, POLLIN, 0});
            }
            poll(ready.data(), ready.size(), -1);
            if (ready[0].revents != 0) {
                eventfd_read(m_wake, &command);
                Apply(command);
                continue;  // the descriptors polled may be gone
            }
            if (ready[1].revents != 0) {
                const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd >= 0) {
                    m_connections[fd];
                }
            }
            for (size_t i = 2; i < ready.size(); ++i) {
                if (ready[i].revents != 0) {
                    Receive(ready[i].fd);
                }
            }
        }
    }
    void Apply(eventfd_t command) {
        if (command != kStart) {
            for (const auto& connection : m_connections) {
                close(connection.first);
            }
            m_connections.clear();
            close(std::exchange(m_listener, -1));
        } else if (m_listener < 0) {
            Listen();
        }
        eventfd_write(m_ack, 1);
    }
    void Receive(int fd) {
        std::string& received = m_connections[fd];
        char buffer[16384];
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count <= 0) {
            return Drop(fd);
        }
        received.append(buffer, count);
        const size_t end = received.find("\r\n\r\n");
        const char* length = strcasestr(received.c_str(), "\r\nContent-Length:");
        if (end == std::string::npos || !length ||
            received.size() < end + 4 + std::stoul(length + 17)) {
            return;  // the request is not all here yet
        }
        const std::string path = received.substr(5, received.find(' ', 5) - 5);  // "POST /..."
        received.clear();
        const std::string& reply = m_replies[path];  // none for "/hang"
        if (write(fd, reply.data(), reply.size()) < 0 || path == "/truncated" ||
            path == "/garbage") {
            Drop(fd);
        }
    }
    void Drop(int fd) {
        close(fd);
        m_connections.erase(fd);
    }
    static std::string Http(int status, const std::string& body, size_t length) {
        return "HTTP/1.1 " + std::to_string(status) +
               " X\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(length) +
               "\r\n\r\n" + body;
    }

    std::map<std::string, std::string> m_replies;  // by path
    const int m_wake = eventfd(0, EFD_CLOEXEC), m_ack = eventfd(0, EFD_CLOEXEC);
    int m_listener = -1;
    uint16_t m_port = 0;
    std::map<int, std::string> m_connections;  // open connection -> request bytes so far
    std::thread m_thread;
};

struct FaultLoadReport {
    int calls = 0;
    int notCalledOnce = 0;  // calls whose callback ran other than exactly once
    // Waves in which no call got a token: all but the first begin right after a restart.
    int wavesWithoutToken = 0;
    double slowestWaveSeconds = 0;
    std::map<std::string, std::map<std::string, int>> outcomes;  // kind -> outcome -> count
};

// waves of perWave AcquireTokenAsync calls, all queued at once: the first of each wave to
// "/hang", the rest in turn to "/ok", "/fault", "/garbage" and "/truncated". The STS stops when
// half a wave has been called back and restarts before the next; outcomes called back from the
// stop to the restart are counted under the kind followed by " stopped". A wave whose callbacks
// take longer than the wait timeout plus a minute counts its missing ones as not called once and
// ends the run.
inline FaultLoadReport RunFaultLoad(int waves, int perWave, int64_t waitMicros) {
    using namespace SsoClient;
    const std::string token = MakeSignedAssertion({});
    FaultyServer sts(token), rogue(token);
    auto factory = CreateSamlTokenFactory(StsResolver().Get());
    std::map<std::string, std::shared_ptr<SecurityTokenService>> services;
    for (const char* kind : {"/hang", "/ok", "/fault", "/garbage", "/truncated"}) {
        auto transport = std::make_shared<HttpsClient>(
            (kind[1] == 'o' || kind[1] == 'f' ? sts : rogue).Url(kind), nullptr, "", waitMicros,
            true);
        services[kind] = std::make_shared<SecurityTokenServiceImpl>(
            std::make_shared<RequestBuilderImpl>(boost::none), transport,
            std::make_shared<ResponseHandlerImpl>(), factory);
    }
    struct Shared {  // outlives the run if a callback never comes
        std::mutex mutex;
        std::condition_variable changed;
        FaultLoadReport report;
        std::vector<int> called;
        int done = 0, tokens = 0;
        bool stopping = false;  // the STS may be down
    };
    auto shared = std::make_shared<Shared>();
    shared->called.resize(static_cast<size_t>(waves) * perWave);
    TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    for (int wave = 0; wave < waves; ++wave) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < perWave; ++i) {
            static const char* const kTurns[] = {"/ok", "/fault", "/garbage", "/truncated"};
            const char* kind = i == 0 ? "/hang" : kTurns[i % 4];
            const size_t id = static_cast<size_t>(wave) * perWave + i;
            services[kind]->AcquireTokenAsync(
                "user", "password", spec,
                [shared, kind, id](const std::shared_ptr<const SamlToken>& result,
                                   const Basalt::Exception* error) {
                    std::lock_guard<std::mutex> lock(shared->mutex);
                    ++shared->called[id];
                    shared->tokens += result ? 1 : 0;
                    const std::string label =
                        kind + std::string(shared->stopping ? " stopped" : "");
                    ++shared->report.outcomes[label][error ? Basalt::DemangledName(typeid(*error))
                                                     : result ? "token"
                                                              : "null"];
                    ++shared->done;
                    shared->changed.notify_all();
                });
        }
        std::unique_lock<std::mutex> lock(shared->mutex);
        const auto bound = start + std::chrono::microseconds(waitMicros) + std::chrono::minutes(1);
        shared->changed.wait_until(lock, bound, [&] { return shared->done >= perWave / 2; });
        shared->stopping = true;
        lock.unlock();
        sts.SetUp(false);
        lock.lock();
        const bool finished =
            shared->changed.wait_until(lock, bound, [&] { return shared->done >= perWave; });
        shared->report.wavesWithoutToken += shared->tokens == 0 ? 1 : 0;
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        shared->report.slowestWaveSeconds =
            std::max(shared->report.slowestWaveSeconds, took.count());
        lock.unlock();
        sts.SetUp(true);
        std::lock_guard<std::mutex> restarted(shared->mutex);
        shared->stopping = false;
        shared->done = shared->tokens = 0;
        if (!finished) {
            break;
        }
    }
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->report.calls = static_cast<int>(shared->called.size());
    shared->report.notCalledOnce = static_cast<int>(
        std::count_if(shared->called.begin(), shared->called.end(), [](int n) { return n != 1; }));
    return shared->report;
}

}  // namespace TestSupport
