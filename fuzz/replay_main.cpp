// Runs every file of the given corpus folders (or single files) through a fuzz target
// once, without libFuzzer, so the corpora replay as ordinary tests under any compiler.
// A broken property aborts the process; an empty or missing corpus is a failure too.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputsIn(const std::filesystem::path& path) {
    std::vector<std::filesystem::path> inputs;
    if (std::filesystem::is_directory(path)) {
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            if (entry.is_regular_file()) inputs.push_back(entry.path());
        }
        std::sort(inputs.begin(), inputs.end());
    } else if (std::filesystem::is_regular_file(path)) {
        inputs.push_back(path);
    }
    return inputs;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& input : inputsIn(argv[i])) {
            std::ifstream in(input, std::ios::binary);
            const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            std::fprintf(stderr, "Running %s (%zu bytes)\n", input.c_str(), bytes.size());
            // A copy of exactly the input's size, so a read past its end is caught by ASan.
            const std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
            LLVMFuzzerTestOneInput(data.data(), data.size());
            ++count;
        }
    }
    if (count == 0) {
        std::fprintf(stderr, "No corpus files found\n");
        return 1;
    }
    std::fprintf(stderr, "Replayed %zu inputs\n", count);
    return 0;
}
