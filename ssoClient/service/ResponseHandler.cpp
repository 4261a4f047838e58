#include "internal/service/ResponseHandler.h"

#include <basalt/Exception.h>
#include <basalt/StringUtil.h>
#include <basalt/Xml.h>
#include <basalt/XmlSecurity.h>
#include <ssoClient/Exceptions.h>

#include <utility>

#include "internal/FailureNotes.h"
#include "internal/xml/Namespaces.h"
#include "internal/xml/XmlUtils.h"

namespace SsoClient {

namespace {

using Basalt::Ref;
using Basalt::Xml::ElementNode;
using QName = std::pair<std::string, std::string>;

constexpr char kValidStatus[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/status/valid";
constexpr char kInvalidStatus[] = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/status/invalid";
constexpr char kUnexpectedFormat[] = "Unexpected XML format";
constexpr char kSamlTokenType[] = "urn:oasis:names:tc:SAML:2.0:assertion";
constexpr char kInclusiveC14n[] = "http://www.w3.org/TR/2001/REC-xml-c14n-20010315#";
constexpr char kExpiredPassword[] = "Password of the user logging on is expired";

const QName kFailedAuthentication{Xmlns::kWsTrust, "FailedAuthentication"};
const QName kTrustInvalidToken{Xmlns::kWsTrust, "InvalidSecurityToken"};
const QName kSecurityInvalidToken{Xmlns::kWsse, "InvalidSecurityToken"};

// The first child element with that local name, whatever its namespace; null if none.
Ref<ElementNode> FirstChild(const ElementNode* parent, const char* localName) {
    if (parent == nullptr) {
        return nullptr;
    }
    for (Ref<Basalt::Xml::Node> node = parent->GetFirstChild(); node;
         node = node->GetNextSibling()) {
        auto* element = dynamic_cast<ElementNode*>(node.Get());
        if (element != nullptr && element->GetLocalName() == localName) {
            return Ref<ElementNode>(element);
        }
    }
    return nullptr;
}

// Follows a chain of local names; null as soon as one is missing.
Ref<ElementNode> Descend(const Ref<ElementNode>& start, std::initializer_list<const char*> names) {
    Ref<ElementNode> current = start;
    for (const char* name : names) {
        current = FirstChild(current.Get(), name);
    }
    return current;
}

Ref<ElementNode> RequireChain(const Ref<ElementNode>& start,
                              std::initializer_list<const char*> names) {
    Ref<ElementNode> found = Descend(start, names);
    if (!found) {
        throw SsoException(kUnexpectedFormat);
    }
    return found;
}

// The value of the element's first child when that child is a text node.
bool FirstText(const ElementNode& element, std::string& text) {
    Ref<Basalt::Xml::Node> first = element.GetFirstChild();
    auto* node = dynamic_cast<Basalt::Xml::TextNode*>(first.Get());
    if (node == nullptr) {
        return false;
    }
    text = node->GetValue();
    return true;
}

Ref<ElementNode> ParseEnvelope(Basalt::Reader* reply) {
    Ref<Basalt::Xml::XMLHandler> handler;
    Basalt::Xml::CreateXMLDocumentHandler(handler);
    Ref<Basalt::Xml::XMLParser> parser;
    Basalt::Xml::CreateXMLParser(handler.Get(), parser);
    try {
        parser->Parse(reply);
    } catch (const Basalt::Xml::XMLParseException& e) {
        throw SsoException(std::string("Response is not well-formed XML: ") + e.what());
    }
    Ref<Basalt::Object> result = handler->GetResult();
    auto* document = dynamic_cast<Basalt::Xml::Document*>(result.Get());
    if (document == nullptr) {
        Basalt::ThrowTypeMismatchException(typeid(Basalt::Xml::Document),
                                           result ? typeid(*result) : typeid(nullptr));
    }
    Ref<ElementNode> envelope = document->GetDocumentElement();
    if (!envelope) {
        throw SsoException("Unexpected response format: missing SAOP Body.");
    }
    return envelope;
}

void CheckFault(const Ref<ElementNode>& envelope) {
    Ref<ElementNode> fault = Descend(envelope, {"Body", "Fault"});
    if (!fault) {
        return;
    }
    Ref<ElementNode> faultCode = FirstChild(fault.Get(), "faultcode");
    std::string code;
    if (!faultCode || !FirstText(*faultCode, code)) {
        throw SsoException("Invalid SOAP response: missing faultcode.");
    }
    const QName name = ResolveQName(*faultCode, code, Xmlns::kSoapEnv);
    std::string faultString;
    if (Ref<ElementNode> element = FirstChild(fault.Get(), "faultstring")) {
        FirstText(*element, faultString);
    }
    ThreadFailureNotes().faultString = faultString;
    if (name == kFailedAuthentication && faultString.rfind(kExpiredPassword, 0) == 0) {
        throw PasswordExpiredException("Authentication failed: " + faultString);
    }
    if (name == kFailedAuthentication || name == kTrustInvalidToken ||
        name == kSecurityInvalidToken) {
        throw InvalidCredentialsException(faultString.empty()
                                              ? std::string("Authentication failed")
                                              : "Authentication failed: " + faultString);
    }
    throw SsoException("Unexpected SOAP fault: " + code + "; request failed.");
}

// Parses the reply, turns a fault into its exception, and returns the SOAP Body.
Ref<ElementNode> ReplyBody(Basalt::Reader* reply) {
    Ref<ElementNode> envelope = ParseEnvelope(reply);
    CheckFault(envelope);
    Ref<ElementNode> body = FirstChild(envelope.Get(), "Body");
    if (!body) {
        throw SsoException("Unexpected response format: missing SAOP Body.");
    }
    return body;
}

// The assertion in the canonical form the token parser and its signature check will see.
std::string CanonicalAssertion(const ElementNode& assertion) {
    Ref<Basalt::Xml::Security::Canonicalizer> canonicalizer;
    Basalt::Xml::Security::CreateCanonicalizer(kInclusiveC14n, canonicalizer);
    Ref<Basalt::StringWriter> writer;
    Basalt::CreateStringWriter(writer);
    try {
        canonicalizer->Canonicalize(&assertion, writer.Get());
    } catch (const Basalt::Xml::Security::XmlSecurityException& e) {
        // e.g. a relative namespace URI, which has no canonical form: a malformed reply
        throw SsoException(std::string(kUnexpectedFormat) + ": " + e.what());
    }
    return writer->TakeString();
}

}  // namespace

ResponseHandler::~ResponseHandler() = default;

void ResponseHandlerImpl::ExtractIssuedToken(Basalt::Reader* reply, std::string& token) const {
    Ref<ElementNode> assertion = RequireChain(
        ReplyBody(reply), {"RequestSecurityTokenResponseCollection", "RequestSecurityTokenResponse",
                           "RequestedSecurityToken", "Assertion"});
    token = CanonicalAssertion(*assertion);
}

void ResponseHandlerImpl::ExtractRenewedToken(Basalt::Reader* reply, std::string& token) const {
    Ref<ElementNode> assertion = RequireChain(
        ReplyBody(reply), {"RequestSecurityTokenResponse", "RequestedSecurityToken", "Assertion"});
    token = CanonicalAssertion(*assertion);
}

bool ResponseHandlerImpl::ExtractValidationResult(Basalt::Reader* reply) const {
    Ref<ElementNode> code =
        RequireChain(ReplyBody(reply), {"RequestSecurityTokenResponse", "Status", "Code"});
    Ref<Basalt::Xml::Node> first = code->GetFirstChild();
    auto* text = dynamic_cast<Basalt::Xml::TextNode*>(first.Get());
    if (text == nullptr) {
        Basalt::ThrowTypeMismatchException(typeid(Basalt::Xml::TextNode),
                                           first ? typeid(*first) : typeid(nullptr));
    }
    const std::string status = text->GetValue();
    if (status == kValidStatus) {
        return true;
    }
    if (status == kInvalidStatus) {
        return false;
    }
    throw SsoException(kUnexpectedFormat);
}

void ResponseHandlerImpl::ExtractNegotiationState(Basalt::Reader* reply,
                                                  NegotiationState& state) const {
    Ref<ElementNode> response =
        RequireChain(ReplyBody(reply),
                     {"RequestSecurityTokenResponseCollection", "RequestSecurityTokenResponse"});
    NegotiationState next;
    response->GetAttribute("Context", next.contextId);
    if (Ref<ElementNode> exchange = FirstChild(response.Get(), "BinaryExchange")) {
        try {
            Basalt::StringUtil::Base64Decode(exchange->GetTextContent(), next.serverLeg);
        } catch (const Basalt::Base64FormatException&) {
            throw SsoException("Base64 format exception");
        }
    }
    if (Ref<ElementNode> requested = FirstChild(response.Get(), "RequestedSecurityToken")) {
        Ref<ElementNode> assertion = FirstChild(requested.Get(), "Assertion");
        if (!assertion) {
            throw SsoException(kUnexpectedFormat);
        }
        Ref<ElementNode> tokenType = FirstChild(response.Get(), "TokenType");
        std::string type = tokenType ? tokenType->GetTextContent() : std::string();
        if (type != kSamlTokenType) {
            throw SsoException("Invalid token type: " + type + " (expected: " + kSamlTokenType);
        }
        next.token = CanonicalAssertion(*assertion);
    }
    state = std::move(next);
}

}  // namespace SsoClient
