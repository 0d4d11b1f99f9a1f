// main() of the fuzz targets where no fuzzer brings one: tries every file of a corpus.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <utility>
#include <vector>

#include "tests/fuzz/fuzz_setup.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Input = std::pair<fs::path, std::vector<std::uint8_t>>;

Input read(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    return {file, {std::istreambuf_iterator<char>(in), {}}};
}

std::vector<Input> inputsOf(const fs::path& place)
{
    std::vector<Input> inputs;
    if (!fs::is_directory(place)) return {read(place)};
    for (const fs::directory_entry& entry : fs::directory_iterator(place))
        inputs.push_back(read(entry.path()));
    std::ranges::sort(inputs);
    return inputs;
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2 || !fs::exists(argv[1])) {
        std::cerr << argv[0] << ": wants a file or a folder with inputs\n";
        return EXIT_FAILURE;
    }
    const std::vector<Input> inputs = inputsOf(argv[1]); // before /tmp is another one
    if (inputs.empty()) {
        std::cerr << argv[1] << " is empty\n";
        return EXIT_FAILURE;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    silenceLog();
    for (const auto& [file, bytes] : inputs) {
        std::cout << file.string() << std::endl;                  // the last one is the one that has failed
        (void)LLVMFuzzerTestOneInput(bytes.data(), bytes.size()); // always 0
    }
    return EXIT_SUCCESS;
}
