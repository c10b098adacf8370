// usage: <target>_fuzz_replay CORPUS_DIRECTORY MUTATIONS [FILE...]
//
// Runs a fuzz target without libFuzzer: every file of the corpus as it is (and any FILE named), then MUTATIONS seeded
// random changes of them, the same ones in every run. A crash leaves its input in crash-input in the current directory.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

std::string current_input;

void save_input() {
    const int fd = ::open("crash-input", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const ssize_t written = ::write(fd, current_input.data(), current_input.size());
    std::fprintf(stderr, "the input of %zd bytes is in crash-input\n", written);
    ::close(fd);
}

void on_signal(int signal_number) {
    save_input();
    ::signal(signal_number, SIG_DFL);
    ::raise(signal_number);
}

void run(const std::string& input) {
    current_input = input;
    // A copy of its own size, so that a read past the end is seen.
    const std::vector<uint8_t> bytes(input.begin(), input.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

std::string mutated(std::string input, const std::vector<std::string>& corpus, std::mt19937_64* random) {
    const auto below = [random](size_t limit) { return static_cast<size_t>((*random)() % limit); };
    for (size_t changes = 1 + below(4); changes > 0; changes--) {
        if (input.empty()) input.push_back(static_cast<char>(below(256)));
        const size_t at = below(input.size());
        static const std::string numbers[] = {std::string(4, '\0'), std::string("\0\0\0\1", 4),
                                              std::string("\1\0\0\0", 4), std::string(4, '\xFF'),
                                              std::string("\x7F\xFF\xFF\xFF", 4)};
        switch (below(6)) {
            case 0:
                input[at] = static_cast<char>(input[at] ^ (1 << below(8)));
                break;
            case 1:
                input[at] = static_cast<char>(below(256));
                break;
            case 2:
                input.replace(at, 4, numbers[below(std::size(numbers))]);
                break;
            case 3:
                input.erase(at, 1 + below(below(2) == 0 ? 4 : input.size()));
                break;
            case 4:
                input.insert(at, input.substr(below(input.size()), 1 + below(16)));
                break;
            default: {
                const std::string& other = corpus[below(corpus.size())];
                if (!other.empty()) input = input.substr(0, at) + other.substr(below(other.size()));
            }
        }
    }
    return input;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s CORPUS_DIRECTORY MUTATIONS [FILE...]\n", argv[0]);
        return 2;
    }
    if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback(save_input);
    ::signal(SIGABRT, on_signal);
    if (__sanitizer_set_death_callback == nullptr) ::signal(SIGSEGV, on_signal);

    std::vector<std::string> files(argv + 3, argv + argc);
    std::error_code no_corpus;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1], no_corpus)) {
        if (entry.is_regular_file()) files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    std::vector<std::string> corpus = {std::string()};
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 2;
        }
        corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    for (const std::string& input : corpus) run(input);
    std::mt19937_64 random(20240229);
    const long mutations = std::atol(argv[2]);
    for (long i = 0; i < mutations; i++) run(mutated(corpus[random() % corpus.size()], corpus, &random));
    std::printf("%zu inputs, %ld mutations\n", corpus.size(), mutations);
    return 0;
}
