// Replays a fuzz target's seed corpus through its input function, as ctest's check that the seeds
// still mean what they were written for: a seed named "reject-*" must be refused (the target
// returns -1), every other seed must be accepted (0). A crash or sanitizer report fails as usual.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " CORPUS_DIR\n";
        return 2;
    }
    int seeds = 0;
    int failures = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        const std::string name = entry.path().filename().string();
        if (!entry.is_regular_file() || entry.path().extension() == ".sh") {
            continue;  // the corpus's own generator script
        }
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        const int expected = name.rfind("reject-", 0) == 0 ? -1 : 0;
        const int got =
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++seeds;
        if (got != expected) {
            ++failures;
            std::cerr << name << ": " << (got == 0 ? "accepted" : "refused") << ", expected "
                      << (expected == 0 ? "accepted" : "refused") << "\n";
        }
    }
    std::cout << seeds << " seeds, " << failures << " unexpected\n";
    return seeds > 0 && failures == 0 ? 0 : 1;
}
