#include "sts/WsTrustSts.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The launcher that the service tests and the demo rely on: the STS starts on a free port,
// answers control commands, handles SOAP handed over the pipe and stops when released.
TEST(WsTrustStsLauncherTest, StartsAnswersAndCounts) {
    TestSts::WsTrustSts sts({"--account", "dave:dave-password"});
    EXPECT_GT(sts.Port(), 0);
    EXPECT_EQ(sts.Url(), "https://localhost:" + std::to_string(sts.Port()) + "/sts/STSService");
    EXPECT_EQ(sts.Command("arm status:503"), "OK");
    EXPECT_EQ(sts.Stat("armed"), 1);

    std::string reply;
    EXPECT_EQ(sts.Soap("urn:not-ws-trust", "<not-soap/>", reply), 500);
    EXPECT_NE(reply.find("soapenv:Client"), std::string::npos) << reply;
    EXPECT_EQ(sts.Stat("requests"), 1);
    EXPECT_EQ(sts.Stat("connections"), 0);
}

TEST(WsTrustStsLauncherTest, TwoServersGetDifferentPorts) {
    TestSts::WsTrustSts first;
    TestSts::WsTrustSts second;
    EXPECT_NE(first.Port(), second.Port());
}

}  // namespace
