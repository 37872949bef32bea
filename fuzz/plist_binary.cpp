#include <cstdint>

#include "fuzz/property_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view file(reinterpret_cast<const char*>(bytes), size);
  if (file.starts_with("bplist")) corvane::fuzz::try_property_list(file);
  return 0;
}
