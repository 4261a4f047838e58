// Cost of validating a JWT bearer token into a token object, next to the raw work it cannot avoid:
// base64url decoding of the three segments and an OpenSSL EVP verification of the signing input
// with a key parsed once. Also reports the heap held by one live token (heap_bytes_per_token).
#include <benchmark/benchmark.h>
#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <array>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <basalt/Jwt.h>
#include <ssoClient/JwtTokenValidator.h>

#include "HeapPerToken.h"
#include "TestData.h"

namespace {

// The tokens are the interoperability fixtures signed by PyJWT: 728 bytes (RS256, RSA-2048) and
// 472 bytes (ES256), each with eight claims (jti, iss, sub, two audiences, iat, exp, two groups and
// a user name).
std::string Fixture(const std::string& name) {
    std::istringstream lines(TestData::Read("jwt/tokens.txt"));
    std::string label, token;
    while (lines >> label >> token && label != name) {
    }
    return token;
}

struct Algorithm {
    const char* fixture;
    const char* keyFile;
};
const Algorithm kAlgorithms[] = {{"RS256-pyjwt", "rsa.pem"}, {"ES256-pyjwt", "ec256.pub"}};

void BM_Validate(benchmark::State& state) {
    const Algorithm& algorithm = kAlgorithms[state.range(0)];
    const std::string token = Fixture(algorithm.fixture);
    Basalt::Ref<SsoClient::TokenValidator> validator;
    SsoClient::CreateJwtTokenValidator({"https://api.example.test"},
                                       {std::make_shared<const std::string>(TestData::Read(
                                           std::string("jwt/") + algorithm.keyFile))},
                                       600, validator);
    for (auto _ : state) {
        benchmark::DoNotOptimize(validator->Validate(token, ""));
    }
    state.counters["token_bytes"] = static_cast<double>(token.size());
}
BENCHMARK(BM_Validate)->Arg(0)->Arg(1);

// For the breakdown: decoding and the claim reads, no signature.
void BM_DecodeOnly(benchmark::State& state) {
    const std::string token = Fixture(kAlgorithms[state.range(0)].fixture);
    for (auto _ : state) {
        const Basalt::Jwt::Decoder decoder(token);
        benchmark::DoNotOptimize(decoder.GetSubject());
        benchmark::DoNotOptimize(decoder.GetExpirationTime());
    }
}
BENCHMARK(BM_DecodeOnly)->Arg(0)->Arg(1);

// The baseline: what any validator must do, written straight against OpenSSL.
std::string Base64UrlDecode(std::string_view text) {
    static const std::array<signed char, 256> table = [] {
        std::array<signed char, 256> t{};
        t.fill(-1);
        const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
        for (int i = 0; i < 64; ++i) {
            t[static_cast<unsigned char>(alphabet[i])] = static_cast<signed char>(i);
        }
        return t;
    }();
    std::string out;
    out.reserve(text.size() * 3 / 4);
    uint32_t bits = 0;
    int count = 0;
    for (const char c : text) {
        bits = (bits << 6) | static_cast<uint32_t>(table[static_cast<unsigned char>(c)]);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<char>((bits >> count) & 0xFF));
        }
    }
    return out;
}

std::string RawToDer(const std::string& raw) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(raw.data());
    const int half = static_cast<int>(raw.size() / 2);
    ECDSA_SIG* signature = ECDSA_SIG_new();
    ECDSA_SIG_set0(signature, BN_bin2bn(bytes, half, nullptr),
                   BN_bin2bn(bytes + half, half, nullptr));
    unsigned char* der = nullptr;
    const int length = i2d_ECDSA_SIG(signature, &der);
    std::string out(reinterpret_cast<const char*>(der), static_cast<size_t>(length));
    OPENSSL_free(der);
    ECDSA_SIG_free(signature);
    return out;
}

EVP_PKEY* LoadKey(const std::string& file) {
    const std::string pem = TestData::Read("jwt/" + file);
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    EVP_PKEY* key = nullptr;
    if (pem.find("CERTIFICATE") != std::string::npos) {
        X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
        key = X509_get_pubkey(certificate);
        X509_free(certificate);
    } else {
        key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
    }
    BIO_free(bio);
    return key;
}

void BM_RawDecodeAndVerify(benchmark::State& state) {
    const Algorithm& algorithm = kAlgorithms[state.range(0)];
    const bool ecdsa = state.range(0) == 1;
    const std::string token = Fixture(algorithm.fixture);
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(LoadKey(algorithm.keyFile), EVP_PKEY_free);
    const size_t first = token.find('.');
    const size_t second = token.rfind('.');
    const std::string_view text(token);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Base64UrlDecode(text.substr(0, first)));
        benchmark::DoNotOptimize(Base64UrlDecode(text.substr(first + 1, second - first - 1)));
        std::string signature = Base64UrlDecode(text.substr(second + 1));
        if (ecdsa) {
            signature = RawToDer(signature);
        }
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        EVP_DigestVerifyInit(context, nullptr, EVP_sha256(), nullptr, key.get());
        const int verified = EVP_DigestVerify(
            context, reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
            reinterpret_cast<const unsigned char*>(token.data()), second);
        EVP_MD_CTX_free(context);
        if (verified != 1) {
            state.SkipWithError("baseline verification failed");
            return;
        }
    }
}
BENCHMARK(BM_RawDecodeAndVerify)->Arg(0)->Arg(1);

// Heap held by one live token.
void BM_HeapBytesPerToken(benchmark::State& state) {
    const std::string token = Fixture("RS256-pyjwt");
    Basalt::Ref<SsoClient::TokenValidator> validator;
    SsoClient::CreateJwtTokenValidator(
        {"https://api.example.test"},
        {std::make_shared<const std::string>(TestData::Read("jwt/rsa.pem"))}, 600, validator);
    validator->Validate(token, "");  // the key is parsed and cached before measuring
    MeasureHeapPerObject(state, [&] { return validator->Validate(token, ""); });
}
BENCHMARK(BM_HeapBytesPerToken)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
