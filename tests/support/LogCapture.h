#pragma once

#include <basalt/Log.h>

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TestSupport {

// Captures the "SsoClient" logger's lines as "<level> <message>", the logger at level meanwhile.
class LogCapture {
  public:
    using Logger = Basalt::Service::Logger;
    explicit LogCapture(int level) : m_previous(SsoLogger()->GetLevel()) {
        SsoLogger()->SetLevel(level);
        Basalt::Service::SetLogSink(
            [this](const Logger& logger, int lineLevel, std::string_view line) {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (&logger == SsoLogger()) {
                    m_lines.push_back(std::to_string(lineLevel) + " " + std::string(line));
                }
            });
    }
    ~LogCapture() {
        Basalt::Service::SetLogSink({});
        SsoLogger()->SetLevel(m_previous);
    }
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_lines, {});
    }

  private:
    static Logger* SsoLogger() { return Basalt::Service::FindLogger("SsoClient"); }
    const int m_previous;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

}  // namespace TestSupport
