// A token provider: one valid token for the life of the process.
#include <ssoClient/TokenProvider.h>

namespace Guide {

void UseProvider(const std::shared_ptr<SsoClient::SecurityTokenService>& sts,
                 const std::string& password) {
    // [snippet:provider]
    SsoClient::TokenSpec spec;
    spec.tokenLifetimeSec = 3600;
    SsoClient::TokenProviderOptions options;
    options.refreshBeforeSec = 600;  // start refreshing ten minutes before expiry
    auto provider = SsoClient::CreateTokenProvider(
        sts, SsoClient::TokenRecipe::ByPassword("alice", password), spec, options);

    std::shared_ptr<const SsoClient::SamlToken> token = provider->GetToken();  // one STS call
    token = provider->GetToken();  // the same token, no network traffic
    provider->Invalidate();        // the server rejected it: the next call acquires anew
    // [/snippet]
}

}  // namespace Guide
