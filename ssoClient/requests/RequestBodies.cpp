#include "internal/requests/RequestBodies.h"

#include <basalt/DateTime.h>
#include <basalt/StringUtil.h>

#include "internal/requests/WsTrustNames.h"
#include "internal/saml/ExtensionNames.h"
#include "internal/xml/XmlUtils.h"

namespace SsoClient {

using namespace WsTrust;

namespace {

std::shared_ptr<XMLCompositeBuilder> Composite(const std::string& prefix, const std::string& name,
                                               const AttributeList& attributes = {}) {
    return std::make_shared<XMLCompositeBuilder>(
        CreateElementBuilder(prefix, name, ToAttributeMap(attributes)));
}

// An element whose one child is child.
std::shared_ptr<XMLCompositeBuilder> Containing(const std::string& prefix, const std::string& name,
                                                const XMLBuilderPtr& child) {
    auto wrapper = Composite(prefix, name);
    wrapper->Add(child);
    return wrapper;
}

XMLBuilderPtr Text(const std::string& prefix, const std::string& name, const std::string& text) {
    return CreateTextElementBuilder(prefix, name, text);
}

const char* BoolText(bool value) {
    return value ? "true" : "false";
}

// wst:RequestSecurityToken for a token already held: type, request type, then the rest.
std::shared_ptr<XMLCompositeBuilder> TokenRequest(const char* tokenType, const char* requestType) {
    auto request = Composite("wst", "RequestSecurityToken", {{"xmlns:wst", Xmlns::kWsTrust}});
    request->Add(Text("wst", "TokenType", tokenType)).Add(Text("wst", "RequestType", requestType));
    return request;
}

// wsp:AppliesTo naming the relying party's endpoint, as WS-Policy defines it.
XMLBuilderPtr BuildAppliesTo(const std::string& address) {
    auto reference = Composite("wsa", "EndpointReference", {{"xmlns:wsa", Xmlns::kWsa}});
    reference->Add(Text("wsa", "Address", address));
    auto appliesTo = Composite("wsp", "AppliesTo", {{"xmlns:wsp", Xmlns::kWsPolicy}});
    appliesTo->Add(reference);
    return appliesTo;
}

XMLBuilderPtr BuildAdviceSet(const std::vector<Advice>& adviceList) {
    auto adviceSet =
        Composite("rsa-advice", "AdviceSet",
                  {{"xmlns:rsa-advice", Saml::CurrentExtensionNames().wsTrustAdvice.c_str()},
                   {"xmlns:saml", Xmlns::kSamlAssertion},
                   {"xmlns:xs", Xmlns::kXs},
                   {"xmlns:xsi", Xmlns::kXsi}});
    for (const Advice& advice : adviceList) {
        adviceSet->Add(BuildAdvice(advice));
    }
    return adviceSet;
}

}  // namespace

std::shared_ptr<XMLCompositeBuilder> BuildIssueRequest(bool holderOfKey, const TokenSpec& spec) {
    auto request = Composite("wst", "RequestSecurityToken",
                             {{"xmlns:wst", Xmlns::kWsTrust}, {"xmlns:wst14", Xmlns::kWsTrust14}});
    request->Add(Text("wst", "TokenType", kSamlTokenType))
        .Add(Text("wst", "RequestType", kIssueRequest));
    // The relying party follows the request type, where WS-Trust's examples put it.
    if (spec.appliesTo) {
        request->Add(BuildAppliesTo(*spec.appliesTo));
    }
    request->Add(Text("wst", "KeyType", holderOfKey ? kPublicKeyKeyType : kBearerKeyType))
        .Add(BuildLifetime(spec.tokenLifetimeSec))
        .Add(CreateElementBuilder(
            "wst", "Renewing",
            ToAttributeMap({{"Allow", BoolText(spec.renewable)}, {"OK", "false"}})))
        .Add(Text("wst", "Delegatable", BoolText(spec.delegable)));
    if (spec.delegateTo) {
        request->Add(Containing("wst", "DelegateTo", BuildUsernameToken(*spec.delegateTo)));
    }
    if (spec.actAsToken && *spec.actAsToken) {
        request->Add(Containing("wst14", "ActAs", CreatePreBuiltElement(**spec.actAsToken)));
    }
    if (!spec.audienceRestriction.empty()) {
        request->Add(BuildParticipants(spec.audienceRestriction));
    }
    if (!spec.advice.empty()) {
        request->Add(BuildAdviceSet(spec.advice));
    }
    return request;
}

std::shared_ptr<XMLCompositeBuilder> BuildIssueRequestWithUseKey(bool holderOfKey,
                                                                 const TokenSpec& spec) {
    auto request = BuildIssueRequest(holderOfKey, spec);
    // The proof of possession is the request's own signature; a delegated request does not
    // prove the key.
    if (holderOfKey && !spec.delegateTo) {
        request->Add(
            CreateElementBuilder("wst", "UseKey", ToAttributeMap({{"Sig", kProofSignatureId}})));
    }
    return request;
}

std::shared_ptr<XMLCompositeBuilder> BuildRenewRequest(const SamlToken& token,
                                                       int64_t lifetimeSeconds) {
    auto request = TokenRequest(kSamlTokenType, kRenewRequest);
    request->Add(BuildLifetime(lifetimeSeconds))
        .Add(Containing("wst", "RenewTarget", CreatePreBuiltElement(token)));
    return request;
}

std::shared_ptr<XMLCompositeBuilder> BuildValidateRequest(const SamlToken& token) {
    auto request = TokenRequest(kStatusTokenType, kValidateRequest);
    request->Add(Containing("wst", "ValidateTarget", CreatePreBuiltElement(token)));
    return request;
}

std::shared_ptr<XMLCompositeBuilder> BuildLifetime(int64_t lifetimeSeconds) {
    const Basalt::System::DateTime created = Basalt::System::GetUtcDateTime();
    const Basalt::System::DateTime expires =
        Basalt::System::DateTimeFromUtc(created.GetUtcTime() + lifetimeSeconds * 1000000, false);
    auto lifetime = Composite("wst", "Lifetime", {{"xmlns:wsu", Xmlns::kWsu}});
    lifetime->Add(Text("wsu", "Created", FormatXmlDateTime(created)))
        .Add(Text("wsu", "Expires", FormatXmlDateTime(expires)));
    return lifetime;
}

std::shared_ptr<XMLCompositeBuilder> BuildUsernameToken(const std::string& userName) {
    auto token = Composite("wsse", "UsernameToken", {{"xmlns:wsse", Xmlns::kWsse}});
    token->Add(Text("wsse", "Username", userName));
    return token;
}

std::shared_ptr<XMLCompositeBuilder> BuildUsernamePasswordToken(const std::string& userName,
                                                                const std::string& password) {
    auto token = BuildUsernameToken(userName);
    token->Add(CreateSecretTextElementBuilder("wsse", "Password",
                                              ToAttributeMap({{"Type", kPasswordText}}), password));
    return token;
}

std::shared_ptr<XMLCompositeBuilder> BuildParticipants(const std::set<std::string>& audience) {
    auto participants = Composite("wst", "Participants", {{"xmlns:wsa", Xmlns::kWsa}});
    for (const std::string& address : audience) {
        participants->Add(BuildParticipant(address));
    }
    return participants;
}

std::shared_ptr<XMLCompositeBuilder> BuildParticipant(const std::string& address) {
    return Containing("wst", "Participant",
                      Containing("wsa", "EndpointReference", Text("wsa", "Address", address)));
}

std::shared_ptr<XMLCompositeBuilder> BuildAdvice(const Advice& advice) {
    auto element = std::make_shared<XMLCompositeBuilder>(CreateElementBuilder(
        "rsa-advice", "Advice", AttributeMap{{"AdviceSource", advice.source}}));
    for (const AdviceAttribute& attribute : advice.attributes) {
        element->Add(BuildAdviceAttribute(attribute));
    }
    return element;
}

std::shared_ptr<XMLCompositeBuilder> BuildAdviceAttribute(const AdviceAttribute& attribute) {
    auto element = std::make_shared<XMLCompositeBuilder>(
        CreateElementBuilder("rsa-advice", "Attribute", AttributeMap{{"Name", attribute.name}}));
    const AttributeMap stringType = ToAttributeMap({{"xsi:type", "xs:string"}});
    for (const std::string& value : attribute.values) {
        element->Add(CreateTextElementBuilder("rsa-advice", "AttributeValue", stringType, value));
    }
    return element;
}

XMLBuilderPtr BuildBinaryExchange(const std::vector<unsigned char>& data) {
    return CreateTextElementBuilder(
        "wst", "BinaryExchange",
        ToAttributeMap({{"EncodingType", kBase64Binary}, {"ValueType", kSpnegoValueType}}),
        Basalt::StringUtil::Base64Encode(data));
}

}  // namespace SsoClient
