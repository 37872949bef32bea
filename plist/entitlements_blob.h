#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// A process's entitlements as code signing keeps them: the magic, the length of the whole blob, both 32-bit
/// and big-endian, and an XML property list.
namespace corvane::plist {

inline constexpr uint32_t entitlements_magic = 0xFADE7171;
inline constexpr size_t entitlements_header_size = 8;

/// Where an executable carries its blob, and how long the kernel lets an attribute be.
inline constexpr char entitlements_attribute[] = "security.corvane.entitlements";
inline constexpr size_t entitlements_attribute_limit = 64 * 1024;

std::string make_entitlements_blob(std::string_view property_list);

/// Whether the blob has a whole header, and the length in it is the blob's own.
bool is_entitlements_blob_whole(std::string_view blob);

}  // namespace corvane::plist
