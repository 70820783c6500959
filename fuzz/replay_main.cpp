// Runs a fuzz target over files instead of random inputs: every file in the directories named on
// the command line, and each of its prefixes of up to 64 lengths. Fails when there is none.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz/require.h"

namespace {

void Run(const std::string& bytes, std::size_t size) {
  // A copy of exactly this size, so that the address sanitizer sees a read beyond it.
  const std::string input(bytes, 0, size);
  fuzz(input);
}

void Replay(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
  const std::size_t step = std::max<std::size_t>(1, bytes.size() / 64);
  for (std::size_t size = 0; size < bytes.size(); size += step) Run(bytes, size);
  Run(bytes, bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::printf("%s\n", entry.path().c_str());  // the last one named is at fault
      std::fflush(stdout);
      Replay(entry.path());
      ++replayed;
    }
  }
  std::printf("%d seeds replayed\n", replayed);
  return replayed == 0 ? 1 : 0;
}
