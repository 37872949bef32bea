#include "client/image_format.h"

#include <cstddef>

namespace corvane::client {

namespace {

struct Signature {
  std::string_view first_bytes;
  ImageFormat format;
};

constexpr ImageFormat svg = {"SVG", "image/svg+xml", "svg", true};
constexpr ImageFormat unknown = {"data", "application/octet-stream", "bin", false};
constexpr Signature signatures[] = {
    {"\x89PNG", {"PNG", "image/png", "png", true}},
    {"\xff\xd8\xff", {"JPEG", "image/jpeg", "jpg", true}},
    {"GIF8", {"GIF", "image/gif", "gif", true}},
    {"BM", {"BMP", "image/bmp", "bmp", true}},
    {"<svg", svg},
    {"%PDF", {"PDF", "application/pdf", "pdf", false}},
    {"<?xml", {"XML", "application/xml", "xml", false}},
};

// An XML declaration and comments may stand before the image's own element.
constexpr size_t svg_search_limit = 4096;

}  // namespace

const ImageFormat& image_format(std::string_view bytes) {
  for (const Signature& signature : signatures) {
    if (!bytes.starts_with(signature.first_bytes)) continue;
    const bool is_svg = bytes.starts_with("<?xml") && bytes.substr(0, svg_search_limit).find("<svg") != bytes.npos;
    return is_svg ? svg : signature.format;
  }
  return unknown;
}

}  // namespace corvane::client
