#include <basalt/Crypto.h>
#include <basalt/Exception.h>
#include <basalt/Net.h>
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>

#include "TestData.h"

namespace {

using namespace Basalt::Crypto;
using Basalt::InvalidArgumentException;
using Basalt::StringUtil::ToHex;

Basalt::Ref<Certificate> FromDer(const std::string& der) {
    Basalt::Ref<Certificate> cert;
    CreateCertificate(reinterpret_cast<const unsigned char*>(der.data()), der.size(), cert);
    return cert;
}

Basalt::Ref<Certificate> FromPem(const std::string& file) {
    Basalt::Ref<Certificate> cert;
    CreateCertificateFromPem(TestData::Read(file), cert);
    return cert;
}

TEST(CertificateTest, PemAndDerGiveTheSameCertificateSharedByItsBytesOnly) {
    const std::string der = TestData::Read("certs/sts-rsa.der");
    const Basalt::Ref<Certificate> fromPem = FromPem("certs/sts-rsa.pem"), first = FromDer(der);
    const std::vector<unsigned char> otherDer = FromPem("certs/other-rsa.pem")->GetDer();
    const auto other = FromDer(std::string(otherDer.begin(), otherDer.end()));
    EXPECT_TRUE(fromPem->Equals(*first));
    EXPECT_FALSE(fromPem->Equals(*other));
    EXPECT_EQ(FromDer(der).Get(), first.Get());
    EXPECT_NE(other.Get(), first.Get());
    EXPECT_EQ(other->GetDer(), otherDer);
    EXPECT_EQ(std::string(fromPem->GetDer().begin(), fromPem->GetDer().end()), der);
    EXPECT_EQ(
        fromPem->GetSubjectName() + "|" + fromPem->GetIssuerName() + "|" +
            fromPem->GetSerialNumber(),
        "CN=Test STS Signing,O=Example Test,C=US|CN=Test STS Signing,O=Example Test,C=US|4660");
    const std::string thumbprint = TestData::Read("certs/sts-rsa.sha256");
    EXPECT_EQ(ToHex(fromPem->GetThumbprintSha256()),
              Basalt::StringUtil::ToLower(thumbprint.substr(0, thumbprint.find_first_of("\r\n"))));
    EXPECT_LT(fromPem->GetNotBefore(), fromPem->GetNotAfter());
    EXPECT_EQ(fromPem->GetPublicKeyPem().rfind("-----BEGIN PUBLIC KEY-----", 0), 0u);
}

TEST(CertificateTest, MalformedInputIsRejected) {
    const std::string der = TestData::Read("certs/sts-rsa.der");
    std::string flipped = der, damagedPem = TestData::Read("certs/sts-rsa.pem");
    flipped[4] ^= 0x55;  // breaks the DER structure
    damagedPem[damagedPem.size() / 2] = '*';
    Basalt::Ref<Certificate> cert;
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
    std::vector<Basalt::Ref<Certificate>> certs;
    CreateCertificatesFromPem(bundle, certs);
    ASSERT_EQ(certs.size(), 2u);
    EXPECT_EQ(certs[1]->GetSubjectName(), "CN=user@example.test");
    for (const std::string& broken : {bundle.substr(0, bundle.size() - 100), std::string()}) {
        EXPECT_THROW(CreateCertificatesFromPem(broken, certs), InvalidArgumentException);
    }
    EXPECT_EQ(certs.size(), 2u);
}

TEST(PrivateKeyTest, KeysSignWhatTheirCertificatesVerify) {
    struct {
        const char *keyFile, *certFile, *passphrase, *algorithm;
        int bits;
    } const cases[] = {
        {"certs/sts-rsa.key", "certs/sts-rsa.pem", "", "RSA", 2048},
        {"certs/sts-rsa-traditional.key", "certs/sts-rsa.pem", "", "RSA", 2048},
        {"certs/sts-rsa-encrypted.key", "certs/sts-rsa.pem", "correct-horse", "RSA", 2048},
        {"certs/user-ec.key", "certs/user-ec.pem", "", "EC", 256},
    };
    Basalt::Ref<Certificate> other = FromPem("certs/other-rsa.pem");
    const std::string data = "<SignedInfo>payload</SignedInfo>", tampered = data + " ";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keyFile);
        Basalt::Ref<PrivateKey> key;
        CreatePrivateKeyFromPem(TestData::Read(c.keyFile), key, c.passphrase);
        Basalt::Ref<Certificate> cert = FromPem(c.certFile);
        EXPECT_EQ(key->GetAlgorithmName() + std::to_string(key->GetBits()) +
                      std::to_string(key->Matches(*cert)) + std::to_string(key->Matches(*other)),
                  c.algorithm + std::to_string(c.bits) + "10");
        for (auto digest :
             {DigestAlgorithm::Sha1, DigestAlgorithm::Sha256, DigestAlgorithm::Sha512}) {
            auto signature = key->Sign(digest, data.data(), data.size());
            EXPECT_TRUE(cert->VerifySignature(digest, data.data(), data.size(), signature));
            EXPECT_FALSE(other->VerifySignature(digest, data.data(), data.size(), signature));
            EXPECT_FALSE(
                cert->VerifySignature(digest, tampered.data(), tampered.size(), signature));
        }
    }
}

TEST(PrivateKeyTest, BadKeysAndPassphrasesAreRejected) {
    const std::string encrypted = TestData::Read("certs/sts-rsa-encrypted.key");
    std::string damaged = TestData::Read("certs/sts-rsa.key");
    damaged[damaged.size() / 2] ^= 1;
    Basalt::Ref<PrivateKey> key;
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

}  // namespace
