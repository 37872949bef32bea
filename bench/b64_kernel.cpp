// Runs one kernel of Base64 over 64 KiB, for bench/b64_instructions to count what the processor does.
// Usage: b64_kernel NAME encode|decode TIMES

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "support/b64_kernels.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  constexpr size_t groups = (64 << 10) / 3;
  std::vector<unsigned char> octets(3 * groups);
  std::string text;
  while (text.size() < 4 * groups) text += corvane::b64_chars[text.size() * 7 % 64];
  for (const corvane::B64Kernels& kernels : corvane::b64_kernels()) {
    if (kernels.name != std::string_view(argv[1])) continue;
    const bool encodes = std::string_view(argv[2]) == "encode";
    for (int times = std::atoi(argv[3]); times > 0; --times) {
      if (encodes)
        kernels.encode(octets.data(), groups, text.data());
      else
        kernels.decode(text.data(), text.size(), octets.data(), {});
    }
    return 0;
  }
  return 1;
}
