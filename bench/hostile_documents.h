#pragma once

#include <cstddef>
#include <span>
#include <string>

namespace corvane {

/// A property list that costs a reader as much as its length allows.
struct HostileDocument {
  const char* name;
  /// As long as `size` lets it be, and not longer.
  std::string (*make)(size_t size);
};

/// The first of each is a normal document, to compare the others with.
std::span<const HostileDocument> hostile_binary_documents();
std::span<const HostileDocument> hostile_xml_documents();

}  // namespace corvane
