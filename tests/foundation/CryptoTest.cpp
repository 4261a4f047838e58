#include <basalt/Crypto.h>
#include <basalt/Exception.h>
#include <basalt/Net.h>
#include <basalt/StringUtil.h>
#include <gtest/gtest.h>

#include "TestData.h"

namespace {

using namespace Basalt::Crypto;

std::string TrimLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

TEST(CertificateTest, PemAndDerGiveTheSameCertificate) {
    Basalt::Ref<Certificate> fromPem;
    CreateCertificateFromPem(TestData::Read("certs/sts-rsa.pem"), fromPem);
    std::string der = TestData::Read("certs/sts-rsa.der");
    Basalt::Ref<Certificate> fromDer;
    CreateCertificate(reinterpret_cast<const unsigned char*>(der.data()), der.size(), fromDer);

    EXPECT_TRUE(fromPem->Equals(*fromDer));
    EXPECT_EQ(std::string(fromPem->GetDer().begin(), fromPem->GetDer().end()), der);
    EXPECT_EQ(fromPem->GetSubjectName(), "CN=Test STS Signing,O=Example Test,C=US");
    EXPECT_EQ(fromPem->GetIssuerName(), "CN=Test STS Signing,O=Example Test,C=US");
    EXPECT_EQ(fromPem->GetSerialNumber(), "4660");
    EXPECT_EQ(Basalt::StringUtil::ToHex(fromPem->GetThumbprintSha256()),
              Basalt::StringUtil::ToLower(TrimLine(TestData::Read("certs/sts-rsa.sha256"))));
    EXPECT_LT(fromPem->GetNotBefore(), fromPem->GetNotAfter());
    EXPECT_EQ(fromPem->GetPublicKeyPem().rfind("-----BEGIN PUBLIC KEY-----", 0), 0u);
}

TEST(CertificateTest, MalformedInputIsRejected) {
    std::string der = TestData::Read("certs/sts-rsa.der");
    auto bytes = [](const std::string& s) {
        return reinterpret_cast<const unsigned char*>(s.data());
    };
    Basalt::Ref<Certificate> cert;
    EXPECT_THROW(CreateCertificate(nullptr, 0, cert), Basalt::InvalidArgumentException);
    EXPECT_THROW(CreateCertificate(bytes(der), der.size() - 1, cert),
                 Basalt::InvalidArgumentException);
    std::string trailing = der + "x";
    EXPECT_THROW(CreateCertificate(bytes(trailing), trailing.size(), cert),
                 Basalt::InvalidArgumentException);
    std::string flipped = der;
    flipped[4] ^= 0x55;  // breaks the DER structure
    EXPECT_THROW(CreateCertificate(bytes(flipped), flipped.size(), cert), Basalt::Exception);
    EXPECT_THROW(CreateCertificateFromPem("not a certificate", cert),
                 Basalt::InvalidArgumentException);
    std::string pem = TestData::Read("certs/sts-rsa.pem");
    std::string damaged = pem;
    damaged[damaged.size() / 2] = '*';
    EXPECT_THROW(CreateCertificateFromPem(damaged, cert), Basalt::InvalidArgumentException);
    EXPECT_THROW(CreateCertificateFromPem(TestData::Read("certs/sts-rsa.key"), cert),
                 Basalt::InvalidArgumentException);
    EXPECT_FALSE(cert);
}

TEST(CertificateTest, BundleParsesEveryCertificateOrFails) {
    std::string bundle = TestData::Read("certs/sts-rsa.pem") + TestData::Read("certs/user-ec.pem");
    std::vector<Basalt::Ref<Certificate>> certs;
    CreateCertificatesFromPem(bundle, certs);
    ASSERT_EQ(certs.size(), 2u);
    EXPECT_EQ(certs[1]->GetSubjectName(), "CN=user@example.test");
    std::string truncated = bundle.substr(0, bundle.size() - 100);
    EXPECT_THROW(CreateCertificatesFromPem(truncated, certs), Basalt::InvalidArgumentException);
    EXPECT_THROW(CreateCertificatesFromPem("", certs), Basalt::InvalidArgumentException);
    EXPECT_EQ(certs.size(), 2u);  // untouched on failure
}

struct KeyCase {
    const char* keyFile;
    const char* certFile;
    const char* passphrase;
    const char* algorithm;
    int bits;
};

TEST(PrivateKeyTest, KeysSignWhatTheirCertificatesVerify) {
    const KeyCase cases[] = {
        {"certs/sts-rsa.key", "certs/sts-rsa.pem", "", "RSA", 2048},
        {"certs/sts-rsa-traditional.key", "certs/sts-rsa.pem", "", "RSA", 2048},
        {"certs/sts-rsa-encrypted.key", "certs/sts-rsa.pem", "correct-horse", "RSA", 2048},
        {"certs/user-ec.key", "certs/user-ec.pem", "", "EC", 256},
    };
    Basalt::Ref<Certificate> other;
    CreateCertificateFromPem(TestData::Read("certs/other-rsa.pem"), other);
    const std::string data = "<SignedInfo>payload</SignedInfo>";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keyFile);
        Basalt::Ref<PrivateKey> key;
        CreatePrivateKeyFromPem(TestData::Read(c.keyFile), key, c.passphrase);
        Basalt::Ref<Certificate> cert;
        CreateCertificateFromPem(TestData::Read(c.certFile), cert);
        EXPECT_EQ(key->GetAlgorithmName(), c.algorithm);
        EXPECT_EQ(key->GetBits(), c.bits);
        EXPECT_TRUE(key->Matches(*cert));
        EXPECT_FALSE(key->Matches(*other));
        for (auto digest :
             {DigestAlgorithm::Sha1, DigestAlgorithm::Sha256, DigestAlgorithm::Sha512}) {
            auto signature = key->Sign(digest, data.data(), data.size());
            EXPECT_TRUE(cert->VerifySignature(digest, data.data(), data.size(), signature));
            EXPECT_FALSE(other->VerifySignature(digest, data.data(), data.size(), signature));
            std::string tampered = data + " ";
            EXPECT_FALSE(
                cert->VerifySignature(digest, tampered.data(), tampered.size(), signature));
        }
    }
}

TEST(PrivateKeyTest, BadKeysAndPassphrasesAreRejected) {
    Basalt::Ref<PrivateKey> key;
    std::string encrypted = TestData::Read("certs/sts-rsa-encrypted.key");
    EXPECT_THROW(CreatePrivateKeyFromPem(encrypted, key), Basalt::InvalidArgumentException);
    EXPECT_THROW(CreatePrivateKeyFromPem(encrypted, key, "wrong"),
                 Basalt::InvalidArgumentException);
    EXPECT_THROW(CreatePrivateKeyFromPem(TestData::Read("certs/sts-rsa.pem"), key),
                 Basalt::InvalidArgumentException);
    std::string damaged = TestData::Read("certs/sts-rsa.key");
    damaged[damaged.size() / 2] ^= 1;
    EXPECT_THROW(CreatePrivateKeyFromPem(damaged, key), Basalt::InvalidArgumentException);
    EXPECT_THROW(CreatePrivateKeyFromPem("", key), Basalt::InvalidArgumentException);
    EXPECT_FALSE(key);
}

TEST(DigestTest, KnownAnswers) {
    EXPECT_EQ(Basalt::StringUtil::ToHex(Digest(DigestAlgorithm::Sha256, "abc", 3)),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(Basalt::StringUtil::ToHex(Digest(DigestAlgorithm::Sha1, "abc", 3)),
              "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(NetTest, IpLiteralsAreRecognised) {
    const std::pair<const char*, bool> cases[] = {
        {"127.0.0.1", true},
        {"::1", true},
        {"fe80::1:2", true},
        {"::ffff:10.0.0.1", true},
        {"sts.example.com", false},
        {"localhost", false},
        {"256.0.0.1", false},
        {"1.2.3", false},
        {"[::1]", false},
        {"01.2.3.4", false},
        {"", false},
        {"1.2.3.4 ", false},
    };
    for (const auto& [host, expected] : cases) {
        EXPECT_EQ(Basalt::System::IsIpAddress(host), expected) << host;
    }
    EXPECT_FALSE(Basalt::System::IsIpAddress(std::string("1.2.3.4\0evil.com", 16)));
}

}  // namespace
