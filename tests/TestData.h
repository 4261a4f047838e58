#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

namespace TestData {

// The bytes of a file under tests/data.
inline std::string Read(const std::string& relativePath) {
    std::ifstream in(std::string(SSOCLIENT_TEST_DATA_DIR) + "/" + relativePath, std::ios::binary);
    if (!in) {
        throw std::runtime_error("missing test data: " + relativePath);
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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
