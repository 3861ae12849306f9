// Tells images from other files.
#include "capsule/host/index/image_header.h"

#include <algorithm>

#include "capsule/host/error.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/little_endian.h"

namespace capsule::host {
namespace {

// Every writer begins the sector area with these two bytes.
bool HasSectorMark(HeaderBytes header, HeaderLayout layout) {
  const uint32_t area = layout == HeaderLayout::Fixed
                            ? kHeaderSectorAreaOffset
                            : platform::LoadLe16(&header[kTailOffsetOffset]);
  return area + 2 <= kHeaderSize && header[area] == 0xAB && header[area + 1] == 0xCD;
}

}  // namespace

ErrorKind KindOfBadHeader(std::span<const unsigned char> stored) {
  if (stored.size() < kHeaderSize) return ErrorKind::NotAnImage;
  const HeaderBytes header(stored.data(), kHeaderSize);
  return HasSectorMark(header, SelectLayout(header)) ? ErrorKind::Damaged : ErrorKind::NotAnImage;
}

std::string JudgeSpareRecords(HeaderBytes stored, const DecodedHeader& header) {
  if (header.layout != HeaderLayout::Fixed || stored[kScrambleFlagOffset] == 1) return {};
  for (size_t i = header.partitions.size(); i < kMaxPartitions; ++i) {
    const auto record =
        stored.subspan(kPartitionRecordsOffset + i * kPartitionRecordSize, kPartitionRecordSize);
    if (std::any_of(record.begin(), record.end(), [](unsigned char byte) { return byte != 0; })) {
      return "partition record " + std::to_string(i) + " is not counted, but is not empty";
    }
  }
  return {};
}

void CheckIndexOffset(const DecodedHeader& header, const ImageFile& image) {
  const std::string& path = image.Name();
  const uint64_t fileSize = image.Size();
  if (header.indexOffset == 0) {
    throw Error(path, "image has no index; `capsule index` makes one");
  }
  if (header.indexOffset < kHeaderSize) {
    throw Error(
        ErrorKind::NotAnImage, path,
        "not an image: its index would lie inside the header, at " + Hex(header.indexOffset));
  }
  if (header.indexOffset >= fileSize) {
    throw Error(path, "image is cut short: its index begins at " +
                          std::to_string(header.indexOffset) + ", the file has " +
                          std::to_string(fileSize) + " bytes");
  }
}

DecodedHeader ReadImageHeader(const ImageFile& image) {
  const std::string& path = image.Name();
  const uint64_t fileSize = image.Size();
  if (fileSize < kHeaderSize) {
    throw Error(ErrorKind::NotAnImage, path,
                "not an image: " + std::to_string(fileSize) + " bytes, a header alone has " +
                    std::to_string(kHeaderSize));
  }
  std::vector<unsigned char> bytes(kHeaderSize);
  if (image.ReadAt(0, bytes) != bytes.size()) throw Error(path, "image is cut short");
  const std::span<unsigned char, kHeaderSize> header(bytes.data(), kHeaderSize);
  if (KindOfBadHeader(header) == ErrorKind::NotAnImage) {
    throw Error(ErrorKind::NotAnImage, path, "not an image: no image header at its start");
  }
  std::string problem;
  std::optional<DecodedHeader> decoded;
  if (RestoreScrambledRegion(header, &problem)) decoded = DecodeHeader(header, &problem);
  if (!decoded) throw Error(path, "header is damaged: " + problem);
  return *decoded;
}

uint64_t LimitOfSections(const ImageFile& image, const DecodedHeader& header,
                         const IndexContents& index, uint64_t length) {
  if (header.indexOffset < kHeaderSize || header.indexOffset >= length) return length;
  FileWindow window(image);
  const auto start = window.At(header.indexOffset, 3);
  const bool isMarked = std::equal(start.begin(), start.end(), "CI1");
  return isMarked || index.end != 0 ? header.indexOffset : length;
}

}  // namespace capsule::host
