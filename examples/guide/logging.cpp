// Routing the libraries' log lines into the host's log, and their measurements into its metrics.
#include <basalt/Log.h>
#include <ssoClient/SecurityTokenService.h>
#include <ssoClient/ServiceObserver.h>

#include <atomic>
#include <cstdio>

namespace Guide {

void RouteLogs() {
    // [snippet:log_sink]
    Basalt::Service::SetLoggerLevel("SsoClient", Basalt::Service::Logger::LL_Info);
    Basalt::Service::SetLoggerLevel("Basalt", Basalt::Service::Logger::LL_Warning);
    Basalt::Service::SetLogSink(
        [](const Basalt::Service::Logger& logger, int level, std::string_view message) {
            // Any thread, possibly several at once; must not throw.
            std::fprintf(stderr, "[%s/%d] %.*s\n", logger.GetName().c_str(), level,
                         static_cast<int>(message.size()), message.data());
        });
    // [/snippet]
}

// [snippet:observer]
class Metrics : public SsoClient::ServiceObserver {
  public:
    void OperationFinished(const char* /*operation*/, std::chrono::microseconds duration,
                           SsoClient::Outcome outcome) override {
        m_calls++;
        m_micros += duration.count();
        if (outcome == SsoClient::Outcome::Communication) {
            m_unreachable++;
        }
    }
    void RetryScheduled(int /*attempt*/, std::chrono::microseconds /*pause*/) override {
        m_retries++;
    }

  private:
    std::atomic<long> m_calls{0}, m_micros{0}, m_unreachable{0}, m_retries{0};
};
// [/snippet]

void Observe(SsoClient::SecurityTokenServiceConfig& config) {
    // [snippet:observer_config]
    config.observer = std::make_shared<Metrics>();
    // [/snippet]
}

}  // namespace Guide
