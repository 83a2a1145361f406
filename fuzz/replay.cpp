// SPDX-License-Identifier: BSD-3-Clause
// main() of a fuzz target that is built without libFuzzer: runs it over files, and over changed copies of
// them.
//
//     splitter_replay [--mutate ROUNDS] FILE-OR-DIRECTORY...
//
// Changes come from a fixed seed: the same files and rounds are the same inputs everywhere. The input that
// ends the process is left in crash-replay of the current directory.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
#if defined(__SANITIZE_ADDRESS__)
extern "C" void __sanitizer_set_death_callback(void (*callback)());
#endif

namespace {

typedef std::vector<std::uint8_t> Bytes;

const Bytes* current = nullptr;

// What a signal handler may do: open, write, no more.
void saveCurrent() {
    const char note[] = "the input is in crash-replay\n";
    const int fd = ::open("crash-replay", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || !current) return;
    if (::write(fd, current->data(), current->size()) == static_cast<ssize_t>(current->size()))
        (void)!::write(2, note, sizeof note - 1);
    ::close(fd);
    current = nullptr;
}

void onSignal(int signal) {
    saveCurrent();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void runOne(const Bytes& input) {
    current = &input;
    // A copy that ends where its memory ends: sanitizers see a step too far.
    const std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[input.size()]);
    std::copy(input.begin(), input.end(), copy.get());
    LLVMFuzzerTestOneInput(copy.get(), input.size());
    current = nullptr;
}

Bytes contentsOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class Mutator {
public:
    explicit Mutator(const std::vector<Bytes>& seeds) : mySeeds(seeds) {}

    Bytes next() {
        Bytes bytes = mySeeds[below(mySeeds.size())];
        for (std::size_t i = 0, count = 1 + below(4); i < count; ++i) change(bytes);
        return bytes;
    }

private:
    std::size_t below(std::size_t limit) { return limit ? myRandom() % limit : 0; }

    void change(Bytes& bytes) {
        static const std::uint8_t edges[] = {0, 1, 2, 4, 8, 11, 12, 13, 0x7F, 0x80, 0xFE, 0xFF};
        if (bytes.empty()) bytes.push_back(0);
        const std::size_t place =
            below(2) ? below(bytes.size()) : below(std::min<std::size_t>(bytes.size(), 40));
        switch (below(6)) {
            case 0:
                bytes[place] = static_cast<std::uint8_t>(myRandom());
                break;
            case 1:
                bytes[place] = edges[below(sizeof edges)];
                break;
            case 2:
                bytes[place] ^= static_cast<std::uint8_t>(1u << below(8));
                break;
            case 3:
                bytes.resize(place + 1);
                break;
            case 4:
                bytes.insert(bytes.begin() + static_cast<long>(place), 1 + below(4),
                             std::uint8_t(myRandom()));
                break;
            default: {
                const Bytes& other = mySeeds[below(mySeeds.size())];
                if (other.size() > 16) bytes.insert(bytes.end(), other.begin() + 16, other.end());
                break;
            }
        }
        if (bytes.size() > 16384) bytes.resize(16384);
    }

    const std::vector<Bytes>& mySeeds;
    std::mt19937 myRandom{20};
};

std::vector<Bytes> seedsIn(const std::vector<std::string>& places) {
    std::vector<std::filesystem::path> paths;
    for (const std::string& place : places) {
        if (!std::filesystem::is_directory(place)) {
            paths.push_back(place);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(place))
            if (entry.is_regular_file()) paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    std::vector<Bytes> seeds;
    for (const std::filesystem::path& path : paths) seeds.push_back(contentsOf(path));
    return seeds;
}

}  // namespace

int main(int argc, char** argv) {
    long rounds = 0;
    std::vector<std::string> places;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--mutate") == 0 && i + 1 < argc)
            rounds = std::atol(argv[++i]);
        else
            places.push_back(argv[i]);
    }
    const std::vector<Bytes> seeds = seedsIn(places);
    if (seeds.empty()) {
        std::fprintf(stderr, "usage: %s [--mutate ROUNDS] FILE-OR-DIRECTORY...\n", argv[0]);
        return 2;
    }
    for (int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGALRM}) std::signal(signal, onSignal);
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_set_death_callback(saveCurrent);
#endif
    for (const Bytes& seed : seeds) runOne(seed);
    Mutator mutator(seeds);
    for (long i = 0; i < rounds; ++i) runOne(mutator.next());
    std::printf("%zu seeds, %ld changed copies\n", seeds.size(), rounds);
    return 0;
}
