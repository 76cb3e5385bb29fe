// Runs a fuzz target once over each file named, or each file of a folder named: how the inputs kept
// in the tree are tried again by any compiler. Data is copied to a buffer of its exact size, so
// that a read past the end shows.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace
{

int replayed = 0;

void replay(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    replayed++;
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; i++) {
        const std::filesystem::path path = argv[i];
        if (!std::filesystem::is_directory(path)) {
            replay(path);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(path))
            replay(entry.path());
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
