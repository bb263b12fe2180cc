// Runs a harness over corpora without a fuzzer: each file as it is, cut short at many places, and with bytes changed
// (always the same changes).
//   fuzz_replay_NAME FILE_OR_FOLDER...
#include "fuzz/fuzz_common.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace
{

constexpr size_t cuts_per_file = 32;
constexpr size_t changes_per_file = 200;
constexpr size_t max_changed_bytes = 4;

using bytes = std::vector<uint8_t>;
namespace fs = std::filesystem;

size_t g_inputs = 0;

void run(const bytes& input)
{
    const bytes mem = exact_copy(input);
    LLVMFuzzerTestOneInput(mem.data(), mem.size());
    ++g_inputs;
}

void run_file(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    const bytes whole{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    FUZZ_CHECK(in.is_open() && !in.bad());
    run(whole);
    for (size_t i = 0; i < cuts_per_file; ++i)
        run(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(whole.size() * i / cuts_per_file)));
    if (whole.empty()) return;
    std::mt19937 rnd(1);
    for (size_t i = 0; i < changes_per_file; ++i) {
        bytes changed = whole;
        for (size_t n = rnd() % max_changed_bytes + 1; n > 0; --n)
            changed[rnd() % changed.size()] = static_cast<uint8_t>(rnd());
        run(changed);
    }
}

} // namespace

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    size_t files = 0;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            run_file(argv[i]);
            ++files;
            continue;
        }
        for (const fs::directory_entry& e : fs::directory_iterator(argv[i])) {
            run_file(e.path());
            ++files;
        }
    }
    printf("%zu files, %zu inputs\n", files, g_inputs);
    return files > 0 ? 0 : 1;
}
