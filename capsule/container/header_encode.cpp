#include <algorithm>

#include "capsule/container/header_format.h"

namespace capsule {

namespace {

constexpr unsigned char kSectorAreaMark[] = {0xAB, 0xCD};
constexpr size_t kSectorAreaSize = 512;

}  // namespace

void FillHeader(const std::string& version, bool compressed,
                std::span<unsigned char, kHeaderSize> header) {
  const size_t length = std::min<size_t>(version.size(), kVersionSize - 1);
  std::copy_n(version.begin(), length, header.begin());
  header[length] = 0;

  const auto area = header.subspan(kHeaderSectorAreaOffset, kSectorAreaSize);
  std::fill(area.begin(), area.end(), static_cast<unsigned char>(0));
  std::copy(std::begin(kSectorAreaMark), std::end(kSectorAreaMark), area.begin());

  header[kPartitionCountOffset] = 0;
  header[kConstant3Offset] = 3;
  header[kCompressionFlagOffset] = compressed ? 1 : 0;
  if (compressed) header[kCompressionMarkOffset] = 2;
}

std::vector<unsigned char> EncodeHeader(const std::string& version, bool compressed) {
  std::vector<unsigned char> header(kHeaderSize);
  FillHeader(version, compressed, std::span<unsigned char, kHeaderSize>(header));
  return header;
}

}  // namespace capsule
