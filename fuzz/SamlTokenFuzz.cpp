// Feeds arbitrary text to the assertion parser and validator (no signature verification): every
// input must end in a token or in one of the documented exceptions (InvalidTokenException and its
// subclasses, the foundation's failures that pass through), never in a crash or a leak.
// Returns 0 for an accepted token, -1 for a refused input.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <basalt/Exception.h>
#include <ssoClient/Exceptions.h>
#include <ssoClient/SamlTokenFactory.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        // A huge tolerance lets inputs with any validity window reach the attribute checks.
        SsoClient::CreateSamlToken(text, 1000L * 365 * 24 * 3600 * 1000);
    } catch (const SsoClient::InvalidTokenException&) {
        return -1;  // refused: not worth keeping in the corpus
    } catch (const Basalt::Xml::XMLParseException&) {
        return -1;  // the foundation's parser, certificate and Base64 failures pass through
    } catch (const Basalt::InvalidArgumentException&) {
        return -1;
    } catch (const Basalt::Base64FormatException&) {
        return -1;
    }
    return 0;
}
