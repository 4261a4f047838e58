#include <basalt/Log.h>

#include <cstdio>
#include <map>
#include <mutex>
#include "internal/system/Immortal.h"

namespace Basalt {
namespace Service {

namespace {

// Function-local statics so that loggers of libraries loaded before us can register safely.
struct Registry {
    std::mutex mutex;
    std::map<std::string, Logger*, std::less<>> loggers;
    std::shared_ptr<const LogSink> sink;
};

Registry& GetRegistry() {
    static Immortal<Registry> registry;  // loggers may log at exit
    return *registry;
}

void DefaultSink(const Logger& logger, int level, std::string_view message) {
    if (level > Logger::LL_Warning) {
        return;
    }
    std::fprintf(stderr, "%s %d: %.*s\n", logger.GetName().c_str(), level,
                 static_cast<int>(message.size()), message.data());
}

void Emit(const Logger& logger, int level, std::string_view message) {
    std::shared_ptr<const LogSink> sink;
    {
        Registry& registry = GetRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        sink = registry.sink;
    }
    try {
        if (sink) {
            (*sink)(logger, level, message);
        } else {
            DefaultSink(logger, level, message);
        }
    } catch (...) {
        // A failing sink must not turn logging into a failure of the caller's operation.
    }
}

template <class... Formatters>
void Log(const Logger* logger, int level, std::string_view format, const Formatters&... args) {
    if (logger == nullptr || !logger->IsEnabled(level)) {
        return;
    }
    Emit(*logger, level, Detail::ASPrintInternal(format, args...));
}

}  // namespace

Logger::Logger(std::string name, int level) : m_name(std::move(name)), m_level(level) {}
Logger::~Logger() = default;

LogSink SetLogSink(LogSink sink) {
    Registry& registry = GetRegistry();
    auto replacement = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
    std::lock_guard<std::mutex> lock(registry.mutex);
    std::shared_ptr<const LogSink> previous = std::exchange(registry.sink, std::move(replacement));
    return previous ? *previous : LogSink();
}

Logger* FindLogger(std::string_view name) {
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto found = registry.loggers.find(name);
    return found == registry.loggers.end() ? nullptr : found->second;
}

bool SetLoggerLevel(std::string_view name, int level) {
    Logger* logger = FindLogger(name);
    if (logger) {
        logger->SetLevel(level);
    }
    return logger != nullptr;
}

StaticLogger::StaticLogger(const char* name, int level)
    : m_logger(std::make_unique<Logger>(name, level)) {
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.loggers[m_logger->GetName()] = m_logger.get();
}

StaticLogger::~StaticLogger() {
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto found = registry.loggers.find(m_logger->GetName());
    if (found != registry.loggers.end() && found->second == m_logger.get()) {
        registry.loggers.erase(found);
    }
}

void LogInternal(const Logger* logger, int level, std::string_view format) {
    Log(logger, level, format);
}

void LogInternal(const Logger* logger, int level, std::string_view format,
                 const PrintFormatter& arg1) {
    Log(logger, level, format, arg1);
}

void LogInternal(const Logger* logger, int level, std::string_view format,
                 const PrintFormatter& arg1, const PrintFormatter& arg2) {
    Log(logger, level, format, arg1, arg2);
}

}  // namespace Service
}  // namespace Basalt
