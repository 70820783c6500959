// See picture.h.
#include "subdevice/picture.h"

#include <boost/crc.hpp>
#include <cstdint>

namespace subdevice {
namespace {

constexpr unsigned kWidth = 64;
constexpr unsigned kHeight = 48;

std::string bigEndian(uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}

std::string chunk(const std::string& typeAndData) {
  boost::crc_32_type crc;
  crc.process_bytes(typeAndData.data(), typeAndData.size());
  return bigEndian(static_cast<uint32_t>(typeAndData.size() - 4)) + typeAndData +
         bigEndian(crc.checksum());
}

// One grey byte a pixel, each row after its filter byte.
std::string pixels(unsigned variant) {
  std::string rows;
  for (unsigned y = 0; y < kHeight; ++y) {
    rows += '\0';
    for (unsigned x = 0; x < kWidth; ++x) rows += static_cast<char>((x ^ y) * 4 + variant);
  }
  return rows;
}

uint32_t adler32(const std::string& data) {
  constexpr uint32_t kModulus = 65521;
  uint32_t low = 1;
  uint32_t high = 0;
  for (const char c : data) {
    low = (low + static_cast<unsigned char>(c)) % kModulus;
    high = (high + low) % kModulus;
  }
  return high << 16 | low;
}

// A zlib stream of one stored block; the data is smaller than such a block may be.
std::string zlibStored(const std::string& data) {
  const auto size = static_cast<uint16_t>(data.size());
  const auto complement = static_cast<uint16_t>(~size);
  std::string stream = "\x78\x01\x01";
  for (const uint16_t half : {size, complement}) {
    stream += static_cast<char>(half & 0xff);
    stream += static_cast<char>(half >> 8);
  }
  return stream + data + bigEndian(adler32(data));
}

}  // namespace

std::string testPicture(unsigned variant) {
  // depth 8, grey, deflate, the standard filters, not interlaced
  const std::string format{8, 0, 0, 0, 0};
  return "\x89PNG\r\n\x1a\n" + chunk("IHDR" + bigEndian(kWidth) + bigEndian(kHeight) + format) +
         chunk("IDAT" + zlibStored(pixels(variant))) + chunk("IEND");
}

}  // namespace subdevice
