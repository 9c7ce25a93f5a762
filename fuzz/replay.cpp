// Runs a fuzz target over stored inputs: the files and folders of the command line. Fails without
// any file, so that a missing corpus is noticed.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length);

namespace fs = std::filesystem;

namespace {

void replay(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> text{std::istreambuf_iterator<char>(in), {}};
    // An exact copy on the heap, so that a sanitizer sees the first byte read past the end.
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

int replayAll(const fs::path& path) {
    if (fs::is_regular_file(path)) {
        replay(path);
        return 1;
    }
    int inputs = 0;
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (!entry.is_regular_file()) continue;
        replay(entry.path());
        ++inputs;
    }
    return inputs;
}

}  // namespace

int main(int count, char** arguments) {
    int inputs = 0;
    for (int i = 1; i < count; ++i) inputs += replayAll(arguments[i]);
    std::printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
