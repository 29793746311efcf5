// Runs a fuzz target once on every file of the directories (or files) it is given, so that the
// corpus is replayed by the ordinary test build, without libFuzzer.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    if (!in.eof() && in.fail()) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        const std::filesystem::path arg(argv[i]);
        if (!std::filesystem::is_directory(arg, ec)) {
            if (!replay(arg))
                return 1;
            ++replayed;
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(arg)) {
            if (!entry.is_regular_file())
                continue;
            if (!replay(entry.path()))
                return 1;
            ++replayed;
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
