// Runs a fuzz target without a fuzzer: every file of the corpus directories
// given, then random inputs from a fixed seed (VEXA_FUZZ_RUNS of them,
// default 2000), some of them mutations of the corpus.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    std::vector<std::string> corpus;
    for (int i = 1; i < argc; ++i) {
        DIR *dir = opendir(argv[i]);
        if (!dir)
            continue;
        while (dirent *entry = readdir(dir)) {
            if (entry->d_name[0] == '.')
                continue;
            std::ifstream in(std::string(argv[i]) + "/" + entry->d_name, std::ios::binary);
            corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        closedir(dir);
    }
    for (auto &input : corpus)
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());

    const char *runs_env = std::getenv("VEXA_FUZZ_RUNS");
    const long runs = runs_env ? std::atol(runs_env) : 2000;
    std::mt19937 rng(12345);
    for (long run = 0; run < runs; ++run) {
        std::string input;
        if (!corpus.empty() && run % 2 == 0) {
            input = corpus[rng() % corpus.size()];
            const size_t flips = 1 + rng() % 8;
            for (size_t i = 0; i < flips && !input.empty(); ++i)
                input[rng() % input.size()] = static_cast<char>(rng());
            if (rng() % 4 == 0)
                input.resize(rng() % (input.size() + 1));
        } else {
            input.resize(rng() % 1024);
            for (auto &c : input)
                c = static_cast<char>(rng());
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
    }
    std::printf("%zu corpus inputs and %ld random inputs ran\n", corpus.size(), runs);
    return 0;
}
