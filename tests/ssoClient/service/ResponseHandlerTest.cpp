#include <basalt/Exception.h>
#include <basalt/IO.h>
#include <gtest/gtest.h>
#include <ssoClient/Exceptions.h>

#include <functional>

#include "internal/service/ResponseHandler.h"

namespace {

using namespace SsoClient;

const std::string kEnvelopeStart =
    "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:wst=\"http://docs.oasis-open.org/ws-sx/ws-trust/200512\" "
    "xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/"
    "oasis-200401-wss-wssecurity-secext-1.0.xsd\">";

std::string Envelope(const std::string& body) {
    return kEnvelopeStart + "<soapenv:Body>" + body + "</soapenv:Body></soapenv:Envelope>";
}

std::string Fault(const std::string& code, const std::string& faultString) {
    return Envelope("<soapenv:Fault><faultcode>" + code + "</faultcode><faultstring>" +
                    faultString + "</faultstring></soapenv:Fault>");
}

const std::string kAssertion =
    "<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\" ID=\"_a\" "
    "Version=\"2.0\"><saml2:Issuer>sts</saml2:Issuer></saml2:Assertion>";

std::string Issued(const std::string& assertion) {
    return Envelope(
        "<wst:RequestSecurityTokenResponseCollection><wst:RequestSecurityTokenResponse>"
        "<wst:RequestedSecurityToken>" +
        assertion +
        "</wst:RequestedSecurityToken></wst:RequestSecurityTokenResponse>"
        "</wst:RequestSecurityTokenResponseCollection>");
}

Basalt::Ref<Basalt::Reader> Reader(const std::string& text) {
    Basalt::Ref<Basalt::StringReader> reader;
    Basalt::CreateStringReader(text, reader);
    return reader;
}

struct FailureCase {
    const char* what;
    std::string reply;
    const std::type_info& exception;
    std::string message;
};

void ExpectFailure(const FailureCase& c, const std::function<void(Basalt::Reader*)>& call) {
    try {
        call(Reader(c.reply).Get());
        ADD_FAILURE() << c.what << ": no exception";
    } catch (const Basalt::Exception& e) {
        EXPECT_EQ(typeid(e), c.exception) << c.what << ": " << e.what();
        EXPECT_EQ(e.what(), c.message) << c.what;
    }
}

TEST(ResponseHandlerTest, FaultsMapToTheLibraryExceptions) {
    const std::string expired = "Password of the user logging on is expired";
    const FailureCase cases[] = {
        {"expired password", Fault("wst:FailedAuthentication", expired + ": alice@x"),
         typeid(PasswordExpiredException), "Authentication failed: " + expired + ": alice@x"},
        {"expiry text later in the string", Fault("wst:FailedAuthentication", "Note: " + expired),
         typeid(InvalidCredentialsException), "Authentication failed: Note: " + expired},
        {"empty fault string", Fault("wst:FailedAuthentication", ""),
         typeid(InvalidCredentialsException), "Authentication failed"},
        {"trust invalid token", Fault("wst:InvalidSecurityToken", "bad"),
         typeid(InvalidCredentialsException), "Authentication failed: bad"},
        {"security invalid token", Fault("wsse:InvalidSecurityToken", "bad"),
         typeid(InvalidCredentialsException), "Authentication failed: bad"},
        {"other prefix, same namespace",
         Envelope("<soapenv:Fault><faultcode "
                  "xmlns:t=\"http://docs.oasis-open.org/ws-sx/ws-trust/200512\">"
                  "t:FailedAuthentication</faultcode></soapenv:Fault>"),
         typeid(InvalidCredentialsException), "Authentication failed"},
        {"same local name, other namespace",
         Envelope(
             "<soapenv:Fault><faultcode xmlns:t=\"urn:other\">t:FailedAuthentication</faultcode>"
             "<faultstring>x</faultstring></soapenv:Fault>"),
         typeid(SsoException), "Unexpected SOAP fault: t:FailedAuthentication; request failed."},
        {"server fault", Fault("soapenv:Server", "boom"), typeid(SsoException),
         "Unexpected SOAP fault: soapenv:Server; request failed."},
        {"unprefixed code is a SOAP code", Fault("Client", "x"), typeid(SsoException),
         "Unexpected SOAP fault: Client; request failed."},
        {"no faultcode", Envelope("<soapenv:Fault><faultstring>x</faultstring></soapenv:Fault>"),
         typeid(SsoException), "Invalid SOAP response: missing faultcode."},
        {"faultcode without text",
         Envelope("<soapenv:Fault><faultcode><x/></faultcode></soapenv:Fault>"),
         typeid(SsoException), "Invalid SOAP response: missing faultcode."},
        {"no body", kEnvelopeStart + "<soapenv:Header/></soapenv:Envelope>", typeid(SsoException),
         "Unexpected response format: missing SAOP Body."},
    };
    for (const FailureCase& c : cases) {
        std::string token;
        ExpectFailure(c, [&](Basalt::Reader* reply) {
            ResponseHandlerImpl().ExtractIssuedToken(reply, token);
        });
    }
}

TEST(ResponseHandlerTest, FaultCodeWithAnUnboundPrefixIsAParseError) {
    std::string token;
    try {
        ResponseHandlerImpl().ExtractIssuedToken(Reader(Fault("nope:Server", "x")).Get(), token);
        FAIL() << "no exception";
    } catch (const ParseException& e) {
        EXPECT_EQ(std::string(e.what()).rfind("Element faultcodeat 1,", 0), 0u) << e.what();
        EXPECT_NE(std::string(e.what()).find("uses undefined prefix: `nope'"), std::string::npos);
    }
}

TEST(ResponseHandlerTest, MalformedRepliesAreSsoExceptions) {
    std::string token;
    ExpectFailure(
        {"truncated", Issued(kAssertion).substr(0, 200), typeid(SsoException), ""},
        [&](Basalt::Reader* reply) {
            try {
                ResponseHandlerImpl().ExtractIssuedToken(reply, token);
            } catch (const SsoException& e) {
                EXPECT_EQ(std::string(e.what()).rfind("Response is not well-formed XML: ", 0), 0u);
                throw SsoException("");
            }
        });
    // A DOCTYPE never reaches the extractors: the hardened parser refuses it.
    std::string withDoctype =
        "<!DOCTYPE x [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>" + Issued(kAssertion);
    EXPECT_THROW(ResponseHandlerImpl().ExtractIssuedToken(Reader(withDoctype).Get(), token),
                 SsoException);
}

TEST(ResponseHandlerTest, IssuedAndRenewedTokensComeOutCanonical) {
    std::string token;
    ResponseHandlerImpl().ExtractIssuedToken(Reader(Issued(kAssertion)).Get(), token);
    // Inclusive canonical form: namespaces in scope from the envelope come along.
    EXPECT_EQ(
        token.rfind("<saml2:Assertion xmlns:saml2=\"urn:oasis:names:tc:SAML:2.0:assertion\"", 0),
        0u)
        << token;
    EXPECT_NE(token.find("xmlns:soapenv="), std::string::npos);
    EXPECT_NE(token.find("<saml2:Issuer>sts</saml2:Issuer></saml2:Assertion>"), std::string::npos);

    const std::string bare =
        Envelope("<wst:RequestSecurityTokenResponse><wst:RequestedSecurityToken>" + kAssertion +
                 "</wst:RequestedSecurityToken></wst:RequestSecurityTokenResponse>");
    std::string renewed;
    ResponseHandlerImpl().ExtractRenewedToken(Reader(bare).Get(), renewed);
    EXPECT_EQ(renewed, token);
    // The same bare response is not an Issue reply.
    ExpectFailure(
        {"bare issue", bare, typeid(SsoException), "Unexpected XML format"},
        [&](Basalt::Reader* reply) { ResponseHandlerImpl().ExtractIssuedToken(reply, token); });
    ExpectFailure(
        {"no assertion", Issued(""), typeid(SsoException), "Unexpected XML format"},
        [&](Basalt::Reader* reply) { ResponseHandlerImpl().ExtractIssuedToken(reply, token); });
}

TEST(ResponseHandlerTest, ValidationStatus) {
    auto status = [](const std::string& code) {
        return Envelope("<wst:RequestSecurityTokenResponse><wst:Status><wst:Code>" + code +
                        "</wst:Code></wst:Status></wst:RequestSecurityTokenResponse>");
    };
    const std::string base = "http://docs.oasis-open.org/ws-sx/ws-trust/200512/status/";
    EXPECT_TRUE(
        ResponseHandlerImpl().ExtractValidationResult(Reader(status(base + "valid")).Get()));
    EXPECT_FALSE(
        ResponseHandlerImpl().ExtractValidationResult(Reader(status(base + "invalid")).Get()));
    for (const std::string& code : {" " + base + "valid", base + "unknown", std::string("valid")}) {
        ExpectFailure(
            {"odd code", status(code), typeid(SsoException), "Unexpected XML format"},
            [](Basalt::Reader* reply) { ResponseHandlerImpl().ExtractValidationResult(reply); });
    }
    EXPECT_THROW(ResponseHandlerImpl().ExtractValidationResult(Reader(status("<x/>")).Get()),
                 Basalt::TypeMismatchException);
}

TEST(ResponseHandlerTest, NegotiationLegs) {
    auto leg = [](const std::string& inner, const std::string& context = " Context=\"ctx-1\"") {
        return Envelope(
            "<wst:RequestSecurityTokenResponseCollection><wst:RequestSecurityTokenResponse" +
            context + ">" + inner +
            "</wst:RequestSecurityTokenResponse></wst:RequestSecurityTokenResponseCollection>");
    };
    NegotiationState state;
    state.token = "stale";
    ResponseHandlerImpl().ExtractNegotiationState(
        Reader(leg("<wst:BinaryExchange>Q0hBTExFTkdF</wst:BinaryExchange>")).Get(), state);
    EXPECT_EQ(state.contextId, "ctx-1");
    EXPECT_EQ(std::string(state.serverLeg.begin(), state.serverLeg.end()), "CHALLENGE");
    EXPECT_EQ(state.token, "");

    ResponseHandlerImpl().ExtractNegotiationState(
        Reader(leg("<wst:TokenType>urn:oasis:names:tc:SAML:2.0:assertion</wst:TokenType>"
                   "<wst:RequestedSecurityToken>" +
                       kAssertion + "</wst:RequestedSecurityToken>",
                   ""))
            .Get(),
        state);
    EXPECT_EQ(state.contextId, "");
    EXPECT_TRUE(state.serverLeg.empty());
    EXPECT_EQ(state.token.rfind("<saml2:Assertion", 0), 0u);

    const FailureCase failures[] = {
        {"bad base64", leg("<wst:BinaryExchange>***</wst:BinaryExchange>"), typeid(SsoException),
         "Base64 format exception"},
        {"wrong token type",
         leg("<wst:TokenType>urn:oasis:names:tc:SAML:1.0:assertion</wst:TokenType>"
             "<wst:RequestedSecurityToken>" +
             kAssertion + "</wst:RequestedSecurityToken>"),
         typeid(SsoException),
         "Invalid token type: urn:oasis:names:tc:SAML:1.0:assertion (expected: "
         "urn:oasis:names:tc:SAML:2.0:assertion"},
        {"token without assertion", leg("<wst:RequestedSecurityToken/>"), typeid(SsoException),
         "Unexpected XML format"},
        {"no collection", Envelope("<wst:RequestSecurityTokenResponse/>"), typeid(SsoException),
         "Unexpected XML format"},
    };
    for (const FailureCase& c : failures) {
        NegotiationState untouched;
        ExpectFailure(c, [&](Basalt::Reader* reply) {
            ResponseHandlerImpl().ExtractNegotiationState(reply, untouched);
        });
        EXPECT_TRUE(untouched.contextId.empty()) << c.what;
    }
}

}  // namespace
