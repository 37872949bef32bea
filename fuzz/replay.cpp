// Takes the fuzzer's place in builds without one: gives the target each file of a folder, and then COUNT inputs
// that are changed files or random bytes, the same ones each time. Usage: fuzz_<target> COUNT FOLDER

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

namespace {

void try_input(const std::string& input) {
  // A copy of exactly its size, so that a sanitizer sees a read beyond its end.
  const std::vector<uint8_t> bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

class RandomInputs {
 public:
  explicit RandomInputs(const std::vector<std::string>& files) : files_(files) {}

  std::string next() {
    if (below(4) == 0) return bytes(below(200));
    std::string input = files_[below(files_.size())];
    for (size_t changes = below(4); changes > 0; --changes) change(input);
    return input;
  }

 private:
  size_t below(size_t bound) { return static_cast<size_t>(random_()) % bound; }
  std::string bytes(size_t count) {
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random_());
    return bytes;
  }
  void change(std::string& input) {
    const size_t from = below(input.size() + 1);
    const size_t rest = input.size() - from;
    const size_t count = std::min(below(9), rest);
    switch (below(4)) {
      case 0:
        return void(input.replace(from, count, bytes(count)));
      case 1:
        return void(input.insert(from, bytes(below(9))));
      case 2:
        return void(input.erase(from, below(2) == 0 ? count : rest));
      default:
        return void(input.insert(from, input, below(input.size() + 1), below(100)));
    }
  }

  const std::vector<std::string>& files_;
  std::mt19937_64 random_;
};

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(arguments[2])) {
    std::ifstream file(entry.path(), std::ios::binary);
    files.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    // The last name printed before a crash is that of the input that caused it.
    std::printf("%s\n", entry.path().c_str());
    std::fflush(stdout);
    try_input(files.back());
  }
  if (files.empty()) return 1;
  std::sort(files.begin(), files.end());
  RandomInputs random(files);
  const long random_inputs = std::atol(arguments[1]);
  for (long i = 0; i < random_inputs; ++i) try_input(random.next());
  std::printf("%zu files, and %ld random inputs\n", files.size(), random_inputs);
  return 0;
}
