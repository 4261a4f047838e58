#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <basalt/Format.h>

namespace Basalt {
namespace Service {

// A named log channel with its own level. A message of level L is written when L is at most the
// logger's level (lower numbers are more severe). Loggers are created by StaticLogger and found by
// name, so a host can tune each library's logging without the library's help.
class BASALT_API Logger {
  public:
    enum LogLevel : int {
        LL_None = -1,  // as a logger level: write nothing
        LL_Emergency = 0,
        LL_Alert = 1,
        LL_Critical = 2,
        LL_Error = 3,
        LL_Warning = 4,
        LL_Info = 5,
        LL_Verbose = 6,
        LL_Trace = 7,
    };

    explicit Logger(std::string name, int level = LL_Warning);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    ~Logger();

    const std::string& GetName() const { return m_name; }
    int GetLevel() const { return m_level.load(std::memory_order_relaxed); }
    void SetLevel(int level) { m_level.store(level, std::memory_order_relaxed); }
    // The cheap test callers make before composing a message.
    bool IsEnabled(int level) const { return level <= GetLevel(); }

  private:
    std::string m_name;
    std::atomic<int> m_level;
};

// Receives every line a logger admits. Called on the logging thread, possibly on several threads
// at once; must not throw (an exception from a sink is dropped).
using LogSink = std::function<void(const Logger& logger, int level, std::string_view message)>;

// Installs the process-wide sink and returns the previous one; an empty sink restores the
// default, which writes lines of level LL_Warning and more severe to standard error as
// "<logger> <level>: <message>".
BASALT_API LogSink SetLogSink(LogSink sink);

// The live logger of that name, or null. The pointer stays valid while its StaticLogger lives.
BASALT_API Logger* FindLogger(std::string_view name);
// Sets the level of the named logger; returns false if there is none.
BASALT_API bool SetLoggerLevel(std::string_view name, int level);

// Owns a logger registered under its name for the life of a library (a namespace-scope object
// constructed at load time).
class BASALT_API StaticLogger {
  public:
    explicit StaticLogger(const char* name, int level = Logger::LL_Warning);
    StaticLogger(const StaticLogger&) = delete;
    StaticLogger& operator=(const StaticLogger&) = delete;
    ~StaticLogger();

    Logger* Get() const { return m_logger.get(); }
    Logger* operator->() const { return m_logger.get(); }

  private:
    std::unique_ptr<Logger> m_logger;
};

// Formats a message with placeholders %1 and %2 (as Detail::ASPrintInternal) and hands it to the
// sink if the logger admits the level; does nothing for a null logger.
BASALT_API void LogInternal(const Logger* logger, int level, std::string_view format);
BASALT_API void LogInternal(const Logger* logger, int level, std::string_view format,
                            const PrintFormatter& arg1);
BASALT_API void LogInternal(const Logger* logger, int level, std::string_view format,
                            const PrintFormatter& arg1, const PrintFormatter& arg2);

}  // namespace Service
}  // namespace Basalt
