// Without libFuzzer, a harness replays the files it is given (folders are
// walked), so every compiler runs the seed corpus as an ordinary test.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzSupport.h"

int main(int argc, char **argv) {
   std::vector<std::filesystem::path> inputs;
   for (int i = 1; i < argc; ++i) {
      if (std::filesystem::is_directory(argv[i])) {
         for (auto const &e : std::filesystem::recursive_directory_iterator(argv[i])) {
            if (e.is_regular_file()) inputs.push_back(e.path());
         }
      } else {
         inputs.emplace_back(argv[i]);
      }
   }
   for (auto const &p : inputs) {
      std::ifstream in(p, std::ios::binary);
      std::string const data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const *>(data.data()), data.size());
   }
   std::printf("replayed %zu inputs\n", inputs.size());
   return 0;
}
