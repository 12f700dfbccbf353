// For a build without libFuzzer: runs every input of the folder that is its argument once.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize);

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    int nInputs = 0;
    for (const auto& input : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(input.path(), std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        std::printf("%s: %zu bytes\n", input.path().c_str(), bytes.size());
        std::fflush(stdout);  // a report of a sanitizer follows the name of its input
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++nInputs;
    }
    return nInputs == 0;
}
