// Stands in for the fuzzer where there is none: gives the target each file of the folders named.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

int main(int count, char** folders) {
  size_t inputs = 0;
  for (int i = 1; i < count; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(folders[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      // A copy of its very size, so that a sanitizer sees a step beyond.
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
      // The last one named is the one that a crash is about.
      std::printf("%s\n", entry.path().c_str());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++inputs;
    }
  }
  std::printf("%zu inputs\n", inputs);
  return inputs == 0 ? 1 : 0;
}
