// Gives every seed of the folders that it is called with to the fuzz target that it is linked to. What the target finds
// ends it, and the seed in hand is named before.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pucData, std::size_t ulSize);

int main(int iArgs, char **ppcArgs)
{
    std::vector<std::filesystem::path> oSeeds;
    for (int i = 1; i < iArgs; ++i)
    {
        const std::filesystem::directory_iterator oFolder(ppcArgs[i]);
        std::copy(begin(oFolder), end(oFolder), std::back_inserter(oSeeds));
    }
    std::sort(oSeeds.begin(), oSeeds.end());
    for (const std::filesystem::path &oSeed : oSeeds)
    {
        std::puts(oSeed.c_str());
        std::fflush(stdout);
        std::ifstream oFile(oSeed, std::ios::binary);
        const std::vector<char> oBytes{std::istreambuf_iterator<char>(oFile), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(oBytes.data()), oBytes.size());
    }
    std::printf("%zu seeds\n", oSeeds.size());
    return oSeeds.empty() ? 1 : 0;
}
