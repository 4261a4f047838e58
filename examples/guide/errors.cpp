// What a caller does with each failure of a token-service call.
#include <ssoClient/Exceptions.h>
#include <ssoClient/SecurityTokenService.h>

#include <iostream>

namespace Guide {

std::shared_ptr<const SsoClient::SamlToken> LogOn(const SsoClient::SecurityTokenService& sts,
                                                  const std::string& user,
                                                  const std::string& password,
                                                  const SsoClient::TokenSpec& spec) {
    // [snippet:errors]
    try {
        return sts.AcquireToken(user, password, spec);
    } catch (const SsoClient::PasswordExpiredException& e) {
        std::cerr << "Change your password: " << e.what() << "\n";
    } catch (const SsoClient::InvalidCredentialsException& e) {
        std::cerr << "Wrong user name or password: " << e.what() << "\n";  // ask again
    } catch (const SsoClient::CommunicationException& e) {
        std::cerr << "Service unreachable: " << e.what() << "\n";  // try again later
    } catch (const SsoClient::SsoException& e) {
        std::cerr << "Service failure: " << e.what() << "\n";  // report; retrying won't help
    } catch (const Basalt::Exception& e) {
        std::cerr << "Misconfigured: " << e.what() << "\n";  // InvalidArgument/InvalidState
    }
    return nullptr;
    // [/snippet]
}

}  // namespace Guide
