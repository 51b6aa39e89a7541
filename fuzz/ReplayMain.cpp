// Runs a fuzz target over saved inputs without libFuzzer, so that the inputs
// that once crashed it are replayed by every build of the test suite.
// Arguments: files, or folders whose files are all replayed.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (fs::is_directory(argv[i])) {
            for (const fs::directory_entry& entry : fs::directory_iterator(argv[i]))
                if (entry.is_regular_file()) inputs.push_back(entry.path());
        } else {
            inputs.emplace_back(argv[i]);
        }
    }
    for (const fs::path& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 1;
        }
        const std::string bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
