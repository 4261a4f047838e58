#include "internal/saml/ExtensionNames.h"

#include <atomic>
#include <mutex>
#include <string_view>

#include <basalt/Exception.h>
#include <ssoClient/SamlTokenFactory.h>

#include "internal/Logger.h"
#include "internal/saml/SamlNames.h"

namespace SsoClient {
namespace Saml {

namespace {

constexpr char kAdvicePath[] = "/names/2009/12/std-ext/WS-Trust1.4/advice";
constexpr char kSamlExtensionPath[] = "/names/2009/12/std-ext/SAML2.0";
constexpr char kGroupIdentityPath[] = "/schemas/attr-names/2009/01/GroupIdentity";
constexpr char kIsSolutionPath[] = "/schemas/attr-names/2011/07/isSolution";

ExtensionNames NamesFor(const std::string& namespaceBase, const std::string& attributeNameBase) {
    return {namespaceBase + kAdvicePath, namespaceBase + kSamlExtensionPath,
            attributeNameBase + kGroupIdentityPath, attributeNameBase + kIsSolutionPath};
}

std::mutex g_mutex;
std::atomic<bool> g_fixed{false};
ExtensionNames g_names =
    NamesFor(SSOCLIENT_SAML_EXTENSION_NS_BASE, SSOCLIENT_SAML_ATTRIBUTE_NAME_BASE);
std::once_flag g_nearMissWarning;

// True when name is "<scheme>://<some host>" + path.
bool UnderOtherHost(const std::string& name, std::string_view path) {
    const size_t hostStart = name.find("://");
    return hostStart != std::string::npos && name.size() > path.size() &&
           name.compare(name.size() - path.size(), path.size(), path) == 0 &&
           name.find('/', hostStart + 3) == name.size() - path.size();
}

}  // namespace

const ExtensionNames& CurrentExtensionNames() {
    if (!g_fixed.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_fixed.store(true, std::memory_order_release);
    }
    return g_names;
}

void WarnOnNearMissAttribute(const std::string& name) {
    const ExtensionNames& names = CurrentExtensionNames();
    const std::string* expected = nullptr;
    if (name != names.groupIdentity && UnderOtherHost(name, kGroupIdentityPath)) {
        expected = &names.groupIdentity;
    } else if (name != names.isSolution && UnderOtherHost(name, kIsSolutionPath)) {
        expected = &names.isSolution;
    }
    if (expected) {
        std::call_once(g_nearMissWarning, [&] {
            Basalt::Service::LogInternal(
                GetLogger(), Basalt::Service::Logger::LL_Warning,
                "Ignoring SAML attribute '%1', which differs from the configured '%2' only in its "
                "host (see SetSamlExtensionHosts)",
                name, *expected);
        });
    }
}

}  // namespace Saml

void SetSamlExtensionHosts(const std::string& namespaceBase, const std::string& attributeNameBase) {
    std::lock_guard<std::mutex> lock(Saml::g_mutex);
    if (Saml::g_fixed.load(std::memory_order_acquire)) {
        throw Basalt::InvalidStateException(
            "SAML extension hosts must be set before the first token is parsed or requested");
    }
    Saml::g_names = Saml::NamesFor(namespaceBase, attributeNameBase);
}

}  // namespace SsoClient
