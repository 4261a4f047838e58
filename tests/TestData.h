#pragma once

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace TestData {

// The bytes of a file under tests/data.
inline std::string Read(const std::string& relativePath) {
    std::ifstream in(std::string(SSOCLIENT_TEST_DATA_DIR) + "/" + relativePath, std::ios::binary);
    if (!in) {
        throw std::runtime_error("missing test data: " + relativePath);
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace TestData
