// main() of the fuzzers where libFuzzer is not there to be it.
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/fuzz_setup.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

struct Settings {
    std::uint64_t runs = 10'000;
    std::uint64_t seconds = 0; ///< 0: no limit
    std::uint64_t seed = 1;
    std::uint64_t first = 0; ///< run to begin with
    std::uint64_t maxLength = 4096;
    std::vector<fs::path> files;
};

struct Progress {
    std::uint64_t seed = 0;
    std::uint64_t run = 0;
    const char* file = nullptr; ///< while a file is tried
};

Progress progress;

/// Says how to see the failure again. Called while the program is ending.
void reportInput()
{
    std::array<char, 512> line;
    int length = 0;
    if (progress.file != nullptr)
        length = std::snprintf(line.data(), line.size(), "input: %s\n", progress.file);
    else
        length = std::snprintf(line.data(), line.size(), "input: -seed=%llu -first=%llu -runs=1\n",
                               static_cast<unsigned long long>(progress.seed),
                               static_cast<unsigned long long>(progress.run));
    const auto bytes = static_cast<std::size_t>(std::clamp(length, 0, static_cast<int>(line.size()) - 1));
    if (::write(fuzzReportFd(), line.data(), bytes) < 0) std::_Exit(2);
}

void reportAtTheEnd()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    __sanitizer_set_death_callback(reportInput);
#endif
    ::signal(SIGABRT, [](int) {
        reportInput();
        std::_Exit(1);
    });
}

void tryInput(const std::string& input)
{
    // A copy of exactly this size, so that a read behind its end is seen.
    const std::vector<std::uint8_t> bytes(input.begin(), input.end());
    (void)LLVMFuzzerTestOneInput(bytes.data(), bytes.size()); // always 0
}

std::string contentsOf(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void collect(const fs::path& path, std::vector<fs::path>& files)
{
    if (!fs::is_directory(path)) {
        files.push_back(path);
        return;
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path))
        if (entry.is_regular_file()) files.push_back(entry.path());
}

/// Makes inputs up: the same for the same seed and number, whatever came before.
class Maker {
public:
    Maker(std::uint64_t seed, std::uint64_t run, const std::vector<std::string>& examples)
        : random_(seed * 0x9E37'79B9'7F4A'7C15U + run), examples_(examples)
    {
    }

    std::string input(std::size_t maxLength)
    {
        std::string made;
        switch (below(4)) {
        case 0:
            made = randomBytes(below(maxLength + 1));
            break;
        case 1:
            made = examples_.empty() ? pieces(12) : examples_[below(examples_.size())];
            break;
        default:
            made = pieces(1 + below(40));
        }
        for (std::size_t changes = below(4); changes > 0; --changes)
            change(made);
        made.resize(std::min(made.size(), maxLength));
        return made;
    }

private:
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(random_() % limit); }

    std::string randomBytes(std::size_t length)
    {
        std::string bytes(length, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random_());
        return bytes;
    }

    std::string piece()
    {
        const auto dictionary = fuzzDictionary();
        switch (below(8)) {
        case 0:
            return randomBytes(1 + below(4));
        case 1:
            return std::string(below(300), static_cast<char>(random_()));
        default:
            return std::string(dictionary[below(dictionary.size())]);
        }
    }

    std::string pieces(std::size_t count)
    {
        std::string all;
        for (; count > 0; --count)
            all += piece();
        return all;
    }

    void change(std::string& made)
    {
        const std::size_t at = below(made.size() + 1);
        switch (below(5)) {
        case 0:
            made.insert(at, piece());
            break;
        case 1:
            made.erase(at, below(8));
            break;
        case 2:
            if (at < made.size()) made[at] = static_cast<char>(made[at] ^ (1 << below(8)));
            break;
        case 3:
            made.insert(at, made.substr(below(made.size() + 1), below(200)));
            break;
        default:
            made.resize(at);
        }
    }

    std::mt19937_64 random_;
    const std::vector<std::string>& examples_;
};

bool takeOption(std::string_view argument, Settings& settings)
{
    struct Row {
        std::string_view name;
        std::uint64_t& value;
    };
    const Row rows[] = {{"-runs=", settings.runs},
                        {"-max_total_time=", settings.seconds},
                        {"-seed=", settings.seed},
                        {"-first=", settings.first},
                        {"-max_len=", settings.maxLength}};
    for (const Row& row : rows) {
        if (!argument.starts_with(row.name)) continue;
        row.value = std::strtoull(argument.data() + row.name.size(), nullptr, 10);
        return true;
    }
    return false;
}

} // namespace

int main(int argc, char* argv[])
{
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        if (takeOption(argv[i], settings)) continue;
        if (!fs::exists(argv[i])) {
            std::cerr << argv[0] << ": " << argv[i] << " is neither an option nor a file\n";
            return EXIT_FAILURE;
        }
        collect(fs::absolute(argv[i]), settings.files);
    }
    std::sort(settings.files.begin(), settings.files.end());
    std::vector<std::string> examples; // read before /tmp is another one
    for (const fs::path& file : settings.files)
        examples.push_back(contentsOf(file));

    setUpFuzzing();
    silenceLog();
    reportAtTheEnd();
    progress.seed = settings.seed;
    for (std::size_t i = 0; i < examples.size(); ++i) {
        progress.file = settings.files[i].c_str();
        tryInput(examples[i]);
    }
    progress.file = nullptr;

    const auto start = std::chrono::steady_clock::now();
    const auto isOver = [&] {
        return settings.seconds != 0 &&
               std::chrono::steady_clock::now() - start >= std::chrono::seconds(settings.seconds);
    };
    std::uint64_t done = 0;
    for (; done < settings.runs && !isOver(); ++done) {
        progress.run = settings.first + done;
        tryInput(Maker(settings.seed, progress.run, examples).input(static_cast<std::size_t>(settings.maxLength)));
    }
    std::cout << examples.size() << " files and " << done << " made-up inputs of seed " << settings.seed
              << ": all held\n";
    return EXIT_SUCCESS;
}
