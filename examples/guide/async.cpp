// Asynchronous token-service calls: a callback, a future, and cancellation.
#include <ssoClient/Exceptions.h>
#include <ssoClient/SecurityTokenService.h>

#include <future>

namespace Guide {

// [snippet:async_future]
// Waits for an asynchronous acquisition, cancelling it if it takes longer than limit.
std::shared_ptr<const SsoClient::SamlToken> AcquireWithin(
    const SsoClient::SecurityTokenService& sts, const std::string& user,
    const std::string& password, const SsoClient::TokenSpec& spec, std::chrono::seconds limit) {
    auto promise = std::make_shared<std::promise<std::shared_ptr<const SsoClient::SamlToken>>>();
    std::future<std::shared_ptr<const SsoClient::SamlToken>> result = promise->get_future();
    std::shared_ptr<SsoClient::AsyncOperation> call = sts.AcquireTokenAsync(
        user, password, spec,
        [promise](const std::shared_ptr<const SsoClient::SamlToken>& token,
                  const Basalt::Exception* error) {  // exactly once, on a pool thread
            if (error) {
                try {
                    error->Throw();  // a copy of its exact class: error dies with the call
                } catch (...) {
                    promise->set_exception(std::current_exception());
                }
            } else {
                promise->set_value(token);
            }
        });
    if (result.wait_for(limit) == std::future_status::timeout) {
        call->Cancel();  // the callback runs soon with OperationCancelledException
    }
    return result.get();
}
// [/snippet]

}  // namespace Guide
