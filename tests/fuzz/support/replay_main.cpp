// The main() of a harness outside a fuzzing build: runs every input of the
// files and folders named on the command line once, so the seed corpus and
// past findings stay regression tests in every ordinary build.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

bool run_file(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<uint8_t> input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        const fs::path path(argv[i]);
        std::error_code error;
        if (fs::is_directory(path, error)) {
            for (const auto& entry : fs::directory_iterator(path)) {
                if (!entry.is_regular_file()) continue;
                if (!run_file(entry.path())) return 1;
                ++inputs;
            }
        } else {
            if (!run_file(path)) return 1;
            ++inputs;
        }
    }
    if (inputs == 0) {
        std::fprintf(stderr, "no inputs to run\n");
        return 1;
    }
    std::printf("%d inputs ran without a finding\n", inputs);
    return 0;
}
