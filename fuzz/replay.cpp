// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz target without a fuzzer: every file of a corpus, and then mutations of these files. It needs no
// special compiler, so the corpus is part of the normal tests.
//
// The mutations are the same in every run. Only their number differs, as a time limit ends them: the machine
// may be slow, or a sanitizer may make the target slow.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using Bytes = std::vector<std::uint8_t>;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
/// Only targets with inputs of a certain structure have one.
extern "C" [[gnu::weak]] std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                                             std::size_t max_size, unsigned int seed);
/// A sanitizer calls it before it ends the process.
extern "C" [[gnu::weak]] void __sanitizer_set_death_callback(void (*callback)());

namespace {
constexpr std::size_t max_input_bytes = 4096;
constexpr int max_mutations = 10000;
constexpr std::chrono::milliseconds time_for_mutations(1500);

std::mt19937 random_numbers(1);

// For the signal handler.
const std::uint8_t* current_data = nullptr;
std::size_t current_size = 0;
std::string failed_input; // the name of its file

/// Leaves the input that failed in the working directory, by functions that a signal handler may call.
void write_failed_input()
{
    const int file = open(failed_input.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (file < 0)
        return;
    const bool written = write(file, current_data, current_size) == static_cast<ssize_t>(current_size);
    close(file);
    constexpr char text[] = "fuzz: the working directory has the input, as *.failed-input\n";
    if (written)
        (void)!write(STDERR_FILENO, text, sizeof text - 1);
}

void handle_signal(int number)
{
    std::signal(number, SIG_DFL);
    write_failed_input();
    std::raise(number);
}

void run(const Bytes& input)
{
    current_data = input.data();
    current_size = input.size();
    (void)LLVMFuzzerTestOneInput(input.data(), input.size());
}

std::size_t below(std::size_t limit)
{
    return limit == 0 ? 0 : random_numbers() % limit;
}

Bytes read_file(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::vector<Bytes> read_corpus(const std::filesystem::path& folder)
{
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());

    std::vector<Bytes> corpus;
    for (const auto& path : paths)
        corpus.push_back(read_file(path));
    return corpus;
}

/// Some changes of the kinds that a fuzzer makes.
Bytes mutate(Bytes input, const std::vector<Bytes>& corpus)
{
    if (LLVMFuzzerCustomMutator && below(4) != 0) {
        const std::size_t size = std::min(input.size(), max_input_bytes);
        input.resize(max_input_bytes);
        const auto seed = static_cast<unsigned int>(random_numbers());
        input.resize(LLVMFuzzerCustomMutator(input.data(), size, max_input_bytes, seed));
        return input;
    }
    for (std::size_t changes = 1 + below(4); changes > 0; --changes) {
        const auto at = static_cast<std::ptrdiff_t>(below(input.size() + 1));
        switch (below(5)) {
        case 0:
            input.insert(input.begin() + at, static_cast<std::uint8_t>(random_numbers()));
            break;
        case 1:
            input.erase(input.begin() + at,
                        input.end() - static_cast<std::ptrdiff_t>(
                                          below(input.size() + 1 - static_cast<std::size_t>(at))));
            break;
        case 2:
            if (static_cast<std::size_t>(at) < input.size())
                input[static_cast<std::size_t>(at)] ^= static_cast<std::uint8_t>(1U << below(8));
            break;
        case 3:
            if (static_cast<std::size_t>(at) < input.size())
                input[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(random_numbers());
            break;
        default: {
            const Bytes& other = corpus[below(corpus.size())];
            const std::size_t from = below(other.size());
            const std::size_t count = std::min<std::size_t>(below(64), other.size() - from);
            const auto begin = other.begin() + static_cast<std::ptrdiff_t>(from);
            input.insert(input.begin() + at, begin, begin + static_cast<std::ptrdiff_t>(count));
        }
        }
    }
    input.resize(std::min(input.size(), max_input_bytes));
    return input;
}
} // namespace

/// What a custom mutator calls for the parts of its input.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size)
{
    if (size < max_size && below(2) == 0) {
        const std::size_t at = below(size + 1);
        std::copy_backward(data + at, data + size, data + size + 1);
        data[at] = static_cast<std::uint8_t>(random_numbers());
        return size + 1;
    }
    if (size == 0)
        return 0;
    const std::size_t at = below(size);
    if (below(3) == 0) {
        std::copy(data + at + 1, data + size, data + at);
        return size - 1;
    }
    data[at] = static_cast<std::uint8_t>(random_numbers());
    return size;
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER|FILE\n", argv[0]);
        return 2;
    }
    failed_input = std::filesystem::path(argv[0]).filename().string() + ".failed-input";
    for (const int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        std::signal(number, handle_signal);
    if (__sanitizer_set_death_callback)
        __sanitizer_set_death_callback(write_failed_input);

    if (std::filesystem::is_regular_file(argv[1])) {
        run(read_file(argv[1]));
        return 0;
    }
    const std::vector<Bytes> corpus = read_corpus(argv[1]);
    if (corpus.empty()) {
        std::fprintf(stderr, "no inputs in %s\n", argv[1]);
        return 1;
    }
    for (const Bytes& input : corpus)
        run(input);

    const auto end = std::chrono::steady_clock::now() + time_for_mutations;
    int mutations = 0;
    for (; mutations < max_mutations && std::chrono::steady_clock::now() < end; ++mutations)
        run(mutate(corpus[below(corpus.size())], corpus));
    std::printf("%zu inputs, %d mutations\n", corpus.size(), mutations);
}
