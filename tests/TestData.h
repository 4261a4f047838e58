#pragma once

// The tests' inputs: files under tests/data and what is loaded from them, scratch directories,
// edits of texts and the command-line tools run on them.

#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <basalt/Crypto.h>
#include <basalt/IO.h>
#include <basalt/XmlSecurity.h>

namespace TestData {

// The bytes of a file under tests/data.
inline std::string Read(const std::string& relativePath) {
    std::ifstream in(std::string(SSOCLIENT_TEST_DATA_DIR) + "/" + relativePath, std::ios::binary);
    if (!in) {
        throw std::runtime_error("missing test data: " + relativePath);
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline Basalt::Ref<Basalt::Crypto::Certificate> LoadCertificate(const std::string& pemFile) {
    Basalt::Ref<Basalt::Crypto::Certificate> certificate;
    Basalt::Crypto::CreateCertificateFromPem(Read(pemFile), certificate);
    return certificate;
}

inline Basalt::Ref<Basalt::Crypto::PrivateKey> LoadPrivateKey(const std::string& pemFile) {
    Basalt::Ref<Basalt::Crypto::PrivateKey> key;
    Basalt::Crypto::CreatePrivateKeyFromPem(Read(pemFile), key);
    return key;
}

// A resolver that trusts exactly the certificates of these PEM files.
inline Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> TrustOnly(
    const std::vector<std::string>& pemFiles) {
    std::vector<Basalt::Ref<Basalt::Crypto::Certificate>> trusted;
    for (const auto& file : pemFiles) {
        trusted.push_back(LoadCertificate(file));
    }
    Basalt::Ref<Basalt::Xml::Security::KeyInfoResolver> resolver;
    Basalt::Xml::Security::CreateTrustedCertificateResolver(trusted, resolver);
    return resolver;
}

// Everything a reader yields.
inline std::string ReadAll(Basalt::Reader& reader) {
    std::string text;
    char buffer[65536];
    while (size_t count = reader.Read(buffer, sizeof buffer)) {
        text.append(buffer, count);
    }
    return text;
}

// Replaces the first occurrence of from by to; throws std::logic_error if from is absent.
inline std::string ReplaceOnce(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    if (at == std::string::npos) {
        throw std::logic_error("test mutation does not apply: " + from);
    }
    return text.replace(at, from.size(), to);
}

// Runs a shell command; returns its exit status and standard output.
inline std::pair<int, std::string> RunCommand(const std::string& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    std::string output;
    char buffer[4096];
    for (size_t n = 0; (n = fread(buffer, 1, sizeof buffer, pipe.get())) > 0;) {
        output.append(buffer, n);
    }
    const int status = pclose(pipe.release());
    return {WEXITSTATUS(status), output};
}

// A fresh scratch directory under the system's temporary directory, removed with everything in it
// when the object goes out of scope, so that runs leave nothing behind.
class TempDir {
  public:
    explicit TempDir(const std::string& prefix) {
        std::string pattern =
            (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed for " + pattern);
        }
        m_path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // The path of name inside the directory.
    std::string File(const std::string& name) const { return m_path + "/" + name; }
    // Writes bytes to name inside the directory and returns its path.
    std::string Write(const std::string& name, const std::string& bytes) const {
        const std::string path = File(name);
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

  private:
    std::string m_path;
};

}  // namespace TestData
