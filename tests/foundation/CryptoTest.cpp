// Certificates and keys, IP literals, and JSON Web Tokens: decoding and signatures.

#include <basalt/Crypto.h>
#include <basalt/Exception.h>
#include <basalt/Net.h>
#include <gtest/gtest.h>

#include <tuple>

#include "TestData.h"
#include "foundation/JwtTestSupport.h"

namespace {

using namespace Basalt::Crypto;
using Basalt::InvalidArgumentException;
using Basalt::Ref;
using Basalt::Jwt::Decoder;
using JwtTest::Base64Url;
using JwtTest::Fixture;
using JwtTest::Sign;
using TestData::LoadCertificate;

Ref<Certificate> FromDer(const std::string& der) {
    Ref<Certificate> cert;
    CreateCertificate(reinterpret_cast<const unsigned char*>(der.data()), der.size(), cert);
    return cert;
}

TEST(CertificateTest, PemAndDerGiveTheSameCertificateSharedByItsBytesOnlyAndNothingMalformed) {
    const std::string der = TestData::Read("certs/sts-rsa.der");
    const Ref<Certificate> fromPem = LoadCertificate("certs/sts-rsa.pem"), first = FromDer(der);
    const std::vector<unsigned char> otherDer = LoadCertificate("certs/other-rsa.pem")->GetDer();
    const auto other = FromDer(std::string(otherDer.begin(), otherDer.end()));
    EXPECT_TRUE(fromPem->Equals(*first));
    EXPECT_FALSE(fromPem->Equals(*other));
    EXPECT_EQ(FromDer(der).Get(), first.Get());
    EXPECT_EQ(std::string(fromPem->GetDer().begin(), fromPem->GetDer().end()), der);
    // Malformed input is rejected.
    std::string flipped = der, damagedPem = TestData::Read("certs/sts-rsa.pem");
    flipped[4] ^= 0x55;  // breaks the DER structure
    damagedPem[damagedPem.size() / 2] = '*';
    Ref<Certificate> cert;
    EXPECT_THROW(CreateCertificate(nullptr, 0, cert), InvalidArgumentException);
    EXPECT_THROW(FromDer(der.substr(0, der.size() - 1)), InvalidArgumentException);
    EXPECT_THROW(FromDer(der + "x"), InvalidArgumentException);  // a known prefix is no match
    EXPECT_THROW(FromDer(flipped), Basalt::Exception);
    for (const std::string& pem :
         {std::string("not a certificate"), damagedPem, TestData::Read("certs/sts-rsa.key")}) {
        EXPECT_THROW(CreateCertificateFromPem(pem, cert), InvalidArgumentException);
    }
    EXPECT_FALSE(cert);
    // A bundle parses every certificate or fails, leaving the output untouched.
    std::string bundle = TestData::Read("certs/sts-rsa.pem") + TestData::Read("certs/user-ec.pem");
    std::vector<Ref<Certificate>> certs;
    CreateCertificatesFromPem(bundle, certs);
    ASSERT_EQ(certs.size(), 2u);
    EXPECT_EQ(certs[1]->GetSubjectName(), "CN=user@example.test");
    for (const std::string& broken : {bundle.substr(0, bundle.size() - 100), std::string()}) {
        EXPECT_THROW(CreateCertificatesFromPem(broken, certs), InvalidArgumentException);
    }
    EXPECT_EQ(certs.size(), 2u);
}

TEST(PrivateKeyTest, KeysLoadInEachFormMatchTheirCertificateAndBadOnesAreRejected) {
    // Key, certificate, passphrase, algorithm and size.
    const std::tuple<const char*, const char*, const char*, std::string, int> cases[] = {
        {"certs/sts-rsa.key", "certs/sts-rsa.pem", "", "RSA", 2048},
        {"certs/sts-rsa-traditional.key", "certs/sts-rsa.pem", "", "RSA", 2048},
        {"certs/sts-rsa-encrypted.key", "certs/sts-rsa.pem", "correct-horse", "RSA", 2048},
        {"certs/user-ec.key", "certs/user-ec.pem", "", "EC", 256},
    };
    Ref<Certificate> other = LoadCertificate("certs/other-rsa.pem");
    for (const auto& [keyFile, certFile, passphrase, algorithm, bits] : cases) {
        SCOPED_TRACE(keyFile);
        Ref<PrivateKey> key;
        CreatePrivateKeyFromPem(TestData::Read(keyFile), key, passphrase);
        Ref<Certificate> cert = LoadCertificate(certFile);
        EXPECT_EQ(key->GetAlgorithmName() + std::to_string(key->GetBits()) +
                      std::to_string(key->Matches(*cert)) + std::to_string(key->Matches(*other)),
                  algorithm + std::to_string(bits) + "10");
    }
    // Bad keys and passphrases leave the output alone.
    const std::string encrypted = TestData::Read("certs/sts-rsa-encrypted.key");
    std::string damaged = TestData::Read("certs/sts-rsa.key");
    damaged[damaged.size() / 2] ^= 1;
    Ref<PrivateKey> key;
    for (const auto& [pem, passphrase] : {std::make_pair(encrypted, ""),
                                          {encrypted, "wrong"},
                                          {TestData::Read("certs/sts-rsa.pem"), ""},
                                          {damaged, ""},
                                          {std::string(), ""}}) {
        EXPECT_THROW(CreatePrivateKeyFromPem(pem, key, passphrase), InvalidArgumentException);
    }
    EXPECT_FALSE(key);
}

TEST(NetTest, IpLiteralsAreRecognised) {
    for (const std::string host : {"127.0.0.1", "::1", "fe80::1:2", "::ffff:10.0.0.1"}) {
        EXPECT_TRUE(Basalt::System::IsIpAddress(host)) << host;
    }
    for (const std::string host : {"sts.example.com", "localhost", "256.0.0.1", "1.2.3", "[::1]",
                                   "01.2.3.4", "", "1.2.3.4 "}) {
        EXPECT_FALSE(Basalt::System::IsIpAddress(host)) << host;
    }
    EXPECT_FALSE(Basalt::System::IsIpAddress(std::string("1.2.3.4\0evil.com", 16)));
}

// An object holding arrays: depth containers in all.
std::string Nested(size_t depth) {
    return "{\"n\":" + std::string(depth - 1, '[') + "1" + std::string(depth - 1, ']') + "}";
}

// A token of exactly size bytes whose signature is filler (of a possible length at both sizes).
std::string TokenOfSize(size_t size) {
    const std::string input = Base64Url(R"({"alg":"RS256"})") + "." + Base64Url("{}") + ".";
    return input + std::string(size - input.size(), 'A');
}

TEST(JwtDecoderTest, OnlySignaturesWithinTheRulesVerifyAndTheKeyCacheStaysBounded) {
    const std::string rs256 = Fixture("RS256-pyjwt");
    const std::string tampered = rs256.substr(0, rs256.find('.') + 1) +
                                 Base64Url(R"({"sub":"eve@x"})") + rs256.substr(rs256.rfind('.'));
    const std::tuple<const char*, std::string, std::vector<std::string>> cases[] = {
        {"tampered payload", tampered, {"rsa.pub"}},
        {"alg none", Base64Url(R"({"alg":"none"})") + "." + Base64Url("{}") + ".", {"rsa.pub"}},
        {"HS256 keyed with a trusted PEM", Fixture("HS256-keyed-with-rsa.pub"), {"rsa.pub"}},
        {"RSA key for ES256", Fixture("ES256-pyjwt"), {"rsa.pem", "rsa.pub"}},
        {"ES256 signed on P-384", Fixture("ES256-on-P384"), {"ec384.pub"}},
        {"EdDSA with Ed448", Fixture("EdDSA-on-Ed448"), {"ed448.pub"}},
        {"ES256, r and s zero-padded", Fixture("ES256-padded-r-and-s"), {"ec256.pub"}},
    };
    for (const auto& [name, token, keys] : cases) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(Decoder(token).ValidateSignature(JwtTest::Keys(keys)));  // throws if undecoded
    }
    // Bad key texts are skipped.
    const Decoder decoder(rs256);
    // The same key as texts that differ in trailing blank lines.
    const auto text = [pem = TestData::Read("jwt/rsa.pub") + "\n\n\n"](size_t i) {
        return std::make_shared<const std::string>(pem + std::string(i, '\n'));
    };
    const auto bad = std::make_shared<const std::string>("not a key");
    EXPECT_TRUE(decoder.ValidateSignature({bad, nullptr, text(0)}));
    EXPECT_FALSE(decoder.ValidateSignature({bad}));
    // The cache never holds more than its capacity.
    for (size_t i = 1; i <= Basalt::Jwt::kKeyCacheCapacity; ++i) {
        decoder.ValidateSignature({text(i)});
    }
    EXPECT_EQ(Basalt::Jwt::kKeyCacheCapacity, Basalt::Jwt::GetKeyCacheStatistics().entries);
}

TEST(JwtDecoderTest, MalformedTokensHoldNoToken) {
    const std::string payload = R"({"sub":"a@b","n":{"x":[1,2]}})";
    const std::string good = Sign(payload);
    const size_t inPayload = good.find('.') + 5;
    std::string badBits = good;  // 256 bytes: the last character's low 4 bits are unused (zero)
    badBits.back() = static_cast<char>(badBits.back() + 1);
    const std::tuple<const char*, std::string, bool> cases[] = {
        {"well-formed", good, true},
        {"one name in two objects", Sign(R"({"x":1,"n":{"x":2}})"), true},
        {"nesting at the limit", Sign(Nested(Decoder::kMaxJsonDepth)), true},
        {"size at the limit", TokenOfSize(Decoder::kMaxTokenBytes), true},
        {"two segments", good.substr(0, good.rfind('.')), false},
        {"five segments (JWE)", good + ".AAAA.AAAA", false},
        {"padding", good + "==", false},
        {"blank inside", std::string(good).insert(inPayload, " "), false},
        {"character outside base64url", std::string(good).replace(inPayload, 1, "+"), false},
        {"impossible segment length", good + "AAA", false},
        {"non-zero trailing bits", badBits, false},
        {"header not an object", Sign(payload, R"(["alg","RS256"])"), false},
        {"payload not an object", Sign(R"("a@b")"), false},
        {"payload not UTF-8", Sign("{\"sub\":\"\xff\"}"), false},
        {"duplicate in header", Sign(payload, R"({"alg":"RS256","alg":"none"})"), false},
        {"duplicate in payload", Sign(R"({"sub":"a@b","sub":"c@d"})"), false},
        {"duplicate in nested object", Sign(R"({"n":{"x":1,"x":2}})"), false},
        {"duplicate in object in array", Sign(R"({"n":[{"x":1,"x":2}]})"), false},
        {"crit header", Sign(payload, R"({"alg":"RS256","crit":["exp"],"exp":1})"), false},
        {"zip header", Sign(payload, R"({"alg":"RS256","zip":"DEF"})"), false},
        {"nesting beyond the limit", Sign(Nested(Decoder::kMaxJsonDepth + 1)), false},
        {"size beyond the limit", TokenOfSize(Decoder::kMaxTokenBytes + 1), false},
    };
    for (const auto& [name, token, decoded] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(decoded, Decoder(token).IsDecoded());
    }
    EXPECT_THROW(Decoder(good + "==").GetSubject(), Basalt::InvalidStateException);
}

// The three time claims are read alike, as whole non-negative seconds; "exp" stands for them.
// Audience and groups must be strings: the audience found among {"urn:b", "https://a"}, then "!"
// when the groups are unreadable, then the groups.
TEST(JwtDecoderTest, TimesAreWholeNonNegativeSecondsAudienceAndGroupsStrings) {
    const std::pair<std::string, const char*> cases[] = {
        {R"("exp":1700000000.9)", "1700000000 "},
        {R"("exp":9223372036854775807)", "9223372036854775807 "},
        {R"("exp":9223372036854775808)", "0 "},
        {R"("exp":1e30)", "0 "},
        {R"("exp":-5)", "0 "},
        {R"("exp":-1.5)", "0 "},
        {R"("exp":"1700000000")", "0 "},
        {R"("exp":null)", "0 "},
        {R"("aud":"https://a","groups":["U@x","a@b@c"])", "0 https://a U@x a@b@c"},
        {R"("aud":["urn:x","https://a","urn:b"])", "0 https://a"},
        {R"("aud":"https://c","groups":"U@x")", "0  !"},
        {R"("aud":["https://a",5],"groups":["U@x",1])", "0  !"},
        {R"("aud":5)", "0 "},
    };
    for (const auto& [claims, expected] : cases) {
        SCOPED_TRACE(claims);
        const Decoder decoder(Sign("{" + claims + "}"));
        std::vector<std::string> groups = {"stale"};
        std::string text = std::to_string(decoder.GetExpirationTime()) + " " +
                           decoder.GetAudience({"urn:b", "https://a"});
        text += decoder.GetGroups(groups) ? "" : " !";
        for (const auto& group : groups) {
            text += " " + group;
        }
        EXPECT_EQ(expected, text);
    }
}

}  // namespace
