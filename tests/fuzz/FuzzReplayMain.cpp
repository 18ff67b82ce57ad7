// Replays a fuzz corpus without libFuzzer: each given file, and each file of
// each given directory, goes to LLVMFuzzerTestOneInput once in name order.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (!fs::is_directory(argv[i], ec))
            inputs.emplace_back(argv[i]);
        for (const fs::directory_entry& e : fs::directory_iterator(argv[i], ec))
            if (e.is_regular_file())
                inputs.push_back(e.path());
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        fprintf(stderr, "usage: %s CORPUS-DIR-OR-FILE...  (no input found)\n", argv[0]);
        return 2;
    }
    for (const fs::path& p : inputs) {
        std::ifstream in(p, std::ios::binary);
        if (!in) {
            fprintf(stderr, "cannot read %s\n", p.c_str());
            return 2;
        }
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    printf("%zu passed, 0 failed\n", inputs.size());
    return 0;
}
