// A few seconds of asynchronous acquisitions against misbehaving loopback servers (the long run
// is bench/SoakBench): each callback comes exactly once, no call outlives its wait, every failure
// has its exception class and the service recovers when the STS comes back.
#include <gtest/gtest.h>

#include "support/FaultLoad.h"

namespace {

TEST(FaultLoadTest, EveryCallIsAnsweredOnceWithItsOwnOutcomeWhateverTheServerDoes) {
    const auto report = TestSupport::RunFaultLoad(3, 60, 1000 * 1000);
    EXPECT_EQ(report.calls, 180);
    EXPECT_EQ(report.notCalledOnce, 0);
    EXPECT_EQ(report.wavesWithoutToken, 0);
    // Each kind ends in its own outcome; while the STS is stopped, a failed exchange is allowed.
    const std::string failed = "SsoClient::CommunicationException";
    const std::map<std::string, std::string> own = {
        {"/ok", "token"},     {"/fault", "SsoClient::InvalidCredentialsException"},
        {"/garbage", failed}, {"/truncated", failed},
        {"/hang", failed},
    };
    for (const auto& [label, outcomes] : report.outcomes) {
        const bool stopped = label.find(" stopped") != std::string::npos;
        for (const auto& [outcome, count] : outcomes) {
            EXPECT_TRUE(outcome == own.at(label.substr(0, label.find(' '))) ||
                        (stopped && outcome == failed))
                << label << ": " << outcome << " x" << count;
        }
    }
}

}  // namespace
