#include <basalt/Format.h>
#include <basalt/Log.h>
#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

namespace {

using Basalt::PrintFormatter;
using Basalt::Detail::ASPrintInternal;
namespace Service = Basalt::Service;

TEST(FormatTest, PlaceholdersByNumberEveryKindAndLiteralText) {
    const PrintFormatter a("A"), b("B"), c("C"), d("D"), e("E"), f("F"), g("G"), h("H"), i("I");
    EXPECT_EQ(ASPrintInternal("%9%8%7%6%5%4%3%2%1", a, b, c, d, e, f, g, h, i), "IHGFEDCBA");
    EXPECT_EQ(ASPrintInternal("%2 before %1, %2 again", a, b), "B before A, B again");
    EXPECT_EQ(ASPrintInternal("%10", a), "A0");
    EXPECT_EQ(ASPrintInternal("100% sure %", a), "100% sure %");
    EXPECT_EQ(ASPrintInternal("%3 has no argument", a, b), "%3 has no argument");
    EXPECT_EQ(ASPrintInternal("%0 and %% stay", a), "%0 and %% stay");
    EXPECT_EQ(ASPrintInternal("no args %1"), "no args %1");
    // An argument's own text is not scanned for placeholders.
    EXPECT_EQ(ASPrintInternal("%1%2", PrintFormatter("%2"), b), "%2B");
    EXPECT_EQ(
        ASPrintInternal(
            "%1|%2|%3|%4|%5", PrintFormatter(true), PrintFormatter(int32_t{-7}),
            PrintFormatter(int64_t{1} << 40), PrintFormatter(static_cast<const char*>(nullptr)),
            Basalt::DatePrintFormatter(Basalt::System::DateTime("2024-01-05T03:04:05Z"))),
        "true|-7|1099511627776|(null)|2024-01-05T03:04:05.000000Z");
}

TEST(LogTest, LevelDecidesWhatReachesTheSinkFromEveryThread) {
    std::mutex mutex;
    std::vector<std::string> lines;
    Service::SetLogSink([&](const Service::Logger& logger, int level, std::string_view m) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(logger.GetName() + "/" + std::to_string(level) + "/" + std::string(m));
    });
    Service::StaticLogger logger("LogTest");
    using Level = Service::Logger;
    Service::LogInternal(logger.Get(), Level::LL_Info, "hidden %1", PrintFormatter(1));
    Service::LogInternal(logger.Get(), Level::LL_Warning, "shown %1 %2", PrintFormatter(1),
                         PrintFormatter("two"));
    ASSERT_TRUE(Service::SetLoggerLevel("LogTest", Level::LL_Trace));
    Service::LogInternal(logger.Get(), Level::LL_Trace, "trace");
    Service::LogInternal(nullptr, Level::LL_Emergency, "no logger");
    EXPECT_EQ(lines, std::vector<std::string>({"LogTest/4/shown 1 two", "LogTest/7/trace"}));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 250; ++i) {
                Service::LogInternal(logger.Get(), 7, "%1:%2", PrintFormatter(t),
                                     PrintFormatter(i));
                if (i == 100) {
                    logger->SetLevel(7);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(lines.size(), 1002u);
    Service::SetLogSink([](const Service::Logger&, int, std::string_view) {
        throw std::runtime_error("sink broke");
    });
    EXPECT_NO_THROW(Service::LogInternal(logger.Get(), 0, "still fine"));
    Service::SetLogSink({});
}

}  // namespace
