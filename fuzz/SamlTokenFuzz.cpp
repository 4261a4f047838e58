// Feeds arbitrary text to the assertion parser and validator (no signature verification): every
// input must end in a token or in one of the documented exceptions, never in a crash or a leak.
// Returns 0 for an accepted token, -1 for a refused input.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <basalt/Exception.h>
#include <ssoClient/SamlTokenFactory.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        // A huge tolerance lets inputs with any validity window reach the attribute checks.
        SsoClient::CreateSamlToken(text, 1000L * 365 * 24 * 3600 * 1000);
    } catch (const Basalt::Exception&) {
        return -1;  // refused: not worth keeping in the corpus
    }
    return 0;
}
