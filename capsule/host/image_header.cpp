// Tells images from other files, and those that can be read from those that cannot yet.
#include <algorithm>
#include <cerrno>

#include "capsule/host/error.h"
#include "capsule/host/image_open.h"
#include "capsule/host/reason.h"
#include "capsule/platform/file.h"
#include "capsule/platform/little_endian.h"

namespace capsule::host {
namespace {

constexpr uint8_t kNtfsSystemId = 7;

// Every writer begins the sector area with these two bytes.
bool HasSectorMark(HeaderBytes header, HeaderLayout layout) {
  const uint32_t area = layout == HeaderLayout::Fixed
                            ? kHeaderSectorAreaOffset
                            : platform::LoadLe16(&header[kTailOffsetOffset]);
  return area + 2 <= kHeaderSize && header[area] == 0xAB && header[area + 1] == 0xCD;
}

void RefuseUnsupported(HeaderBytes header, HeaderLayout layout, const std::string& path) {
  if (layout == HeaderLayout::Compact) {
    throw Error(path, "images with a compact header are not supported yet");
  }
  if (header[kScrambleFlagOffset] == 1) {
    throw Error(path, "images with a scrambled header are not supported yet");
  }
}

void CheckIndexOffset(const DecodedHeader& header, const std::string& path, uint64_t fileSize) {
  if (header.indexOffset == 0) {
    throw Error(path, "image has no index; `capsule index` makes one");
  }
  if (header.indexOffset < kHeaderSize) {
    throw Error(
        path, "not an image: its index would lie inside the header, at " + Hex(header.indexOffset));
  }
  if (header.indexOffset >= fileSize) {
    throw Error(path, "image is cut short: its index begins at " +
                          std::to_string(header.indexOffset) + ", the file has " +
                          std::to_string(fileSize) + " bytes");
  }
}

}  // namespace

DecodedHeader ReadImageHeader(int descriptor, const std::string& path, uint64_t fileSize) {
  if (fileSize < kHeaderSize) {
    throw Error(path, "not an image: " + std::to_string(fileSize) + " bytes, a header alone has " +
                          std::to_string(kHeaderSize));
  }
  std::vector<unsigned char> bytes(kHeaderSize);
  const int64_t got = platform::ReadAt(descriptor, bytes.data(), bytes.size(), 0);
  if (got < 0) throw Error(path, "cannot read the header: " + SystemReason(errno));
  if (static_cast<size_t>(got) != bytes.size()) throw Error(path, "image is cut short");
  const HeaderBytes header(bytes.data(), kHeaderSize);
  const HeaderLayout layout = SelectLayout(header);
  if (!HasSectorMark(header, layout)) {
    throw Error(path, "not an image: no image header at its start");
  }
  RefuseUnsupported(header, layout, path);
  std::string problem;
  auto decoded = DecodeHeader(header, &problem);
  if (!decoded) throw Error(path, "header is damaged: " + problem);
  for (size_t i = 0; i < decoded->partitions.size(); ++i) {
    if (decoded->partitions[i].SystemId != kNtfsSystemId) continue;
    throw Error(path, "partition " + std::to_string(i) +
                          " holds NTFS records, which are not supported yet");
  }
  CheckIndexOffset(*decoded, path, fileSize);
  return *decoded;
}

}  // namespace capsule::host
