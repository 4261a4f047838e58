// Feeds arbitrary bytes to the WS-Trust reply handler as the body of an STS reply. The first byte
// picks the operation (Issue, Renew, Validate or an SPNego leg), the rest is the reply. Replies
// end in a result or in the documented exceptions (SsoException and its subclasses, the type
// mismatch of a non-text validation code); anything else, a crash or a sanitizer report is a
// finding. Returns 0 for an accepted reply, -1 for a refused one.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <basalt/Exception.h>
#include <basalt/IO.h>
#include <ssoClient/Exceptions.h>

#include "internal/service/ResponseHandler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return -1;
    }
    Basalt::Ref<Basalt::StringReader> reply;
    Basalt::CreateStringReader(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1),
                               reply);
    const SsoClient::ResponseHandlerImpl handler;
    std::string token;
    SsoClient::NegotiationState state;
    try {
        switch (data[0] % 4) {
            case 0:
                handler.ExtractIssuedToken(reply.Get(), token);
                break;
            case 1:
                handler.ExtractRenewedToken(reply.Get(), token);
                break;
            case 2:
                handler.ExtractValidationResult(reply.Get());
                break;
            default:
                handler.ExtractNegotiationState(reply.Get(), state);
                break;
        }
    } catch (const SsoClient::SsoException&) {
        return -1;  // refused: not worth keeping in the corpus
    } catch (const Basalt::TypeMismatchException&) {
        return -1;
    }
    return 0;
}
