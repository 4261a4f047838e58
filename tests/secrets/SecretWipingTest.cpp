// A password must not outlive its request: while a request runs, every block freed through
// operator delete or libxml2's allocator (a realloc that moves counts as freeing) is scanned for
// it. Its own executable, since the hooks must be in place before libxml2 allocates anything.
#include <gtest/gtest.h>
#include <libxml/xmlmemory.h>
#include <malloc.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SecurityTokenService.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <future>
#include <new>
#include <string_view>

#include "sts/TestServer.h"
#include "support/TestCredentials.h"

namespace {

// Markup characters make the text differ from its escaped form; the scan looks for the rest.
const char kPassword[] = "<&>9f3c2a71-wipe-me-password";
const std::string_view kTrace(kPassword + 3);

std::atomic<bool> g_scanning{false};
std::atomic<int> g_leaks{0};

void Scan(void* block) {
    if (block && g_scanning.load(std::memory_order_relaxed)) {
        std::string_view bytes(static_cast<const char*>(block), malloc_usable_size(block));
        if (bytes.find(kTrace) != std::string_view::npos) {
            ++g_leaks;
        }
    }
}

void ScanningFree(void* block) {
    Scan(block);
    std::free(block);
}

void* ScanningRealloc(void* block, size_t size) {
    Scan(block);
    return std::realloc(block, size);
}

const bool g_libxmlHooked = xmlMemSetup(ScanningFree, std::malloc, ScanningRealloc, strdup) == 0;

}  // namespace

void* operator new(size_t size) {
    if (void* block = std::malloc(size ? size : 1)) {
        return block;
    }
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    ScanningFree(block);
}
void operator delete(void* block, size_t) noexcept {
    ScanningFree(block);
}

namespace {

using namespace SsoClient;

// Signed, xmlsec works on the document; async, the password waits in a queued call; proxied,
// through a proxy whose password is the same.
struct Case {
    const char* name;
    bool holderOfKey, async, proxied;
};

TEST(SecretWipingTest, NoFreedBlockHoldsThePassword) {
    ASSERT_TRUE(g_libxmlHooked);
    static const TestSupport::StsTrust trust;
    static const std::string password = kPassword;  // the caller's own copy, not scanned
    TestSts::WsTrustSts sts;
    TestSts::TestServer proxy({"--proxy", "proxyuser:" + password});
    TokenSpec spec;
    spec.tokenLifetimeSec = 600;
    for (const Case& c : {Case{"unsigned", false, false, false}, Case{"signed", true, false, false},
                          Case{"async", false, true, false}, Case{"proxied", false, false, true}}) {
        SecurityTokenServiceConfig config = TestSupport::LoopbackStsConfig(sts.Url());
        if (c.holderOfKey) {
            config.holderOfKey = trust.client;
        }
        if (c.proxied) {
            config.proxy = ProxyConfig("http://127.0.0.1:" + std::to_string(proxy.Port()),
                                       "proxyuser", password, "");
        }
        auto service = CreateSecurityTokenService(config);
        g_leaks = 0;
        g_scanning = true;
        // The STS refuses the password: the whole request went out and its reply was parsed.
        if (c.async) {
            std::promise<bool> refused;
            service->AcquireTokenAsync(
                "alice", password, spec, [&](const auto&, const Basalt::Exception* error) {
                    refused.set_value(dynamic_cast<const InvalidCredentialsException*>(error) !=
                                      nullptr);
                });
            EXPECT_TRUE(refused.get_future().get()) << c.name;
        } else {
            EXPECT_THROW(service->AcquireToken("alice", password, spec),
                         InvalidCredentialsException)
                << c.name;
        }
        service.reset();
        g_scanning = false;
        EXPECT_EQ(g_leaks, 0) << c.name;
    }
}

}  // namespace
