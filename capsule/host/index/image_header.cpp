// Tells images from other files.
#include "capsule/host/index/image_header.h"

#include <algorithm>
#include <cerrno>

#include "capsule/host/error.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"
#include "capsule/platform/file.h"

namespace capsule::host {
void CheckIndexOffset(const DecodedHeader& header, const std::string& path, uint64_t fileSize) {
  switch (PlaceOfIndex(header.indexOffset, fileSize)) {
    case IndexPlace::None:
      throw Error(path, "image has no index; `capsule index` makes one");
    case IndexPlace::InHeader:
      throw Error(path, "not an image: its index would lie inside the header, at " +
                            Hex(header.indexOffset));
    case IndexPlace::BehindFile:
      throw Error(path, "image is cut short: its index begins at " +
                            std::to_string(header.indexOffset) + ", the file has " +
                            std::to_string(fileSize) + " bytes");
    case IndexPlace::InFile:
      break;
  }
}

DecodedHeader ReadImageHeader(int descriptor, const std::string& path, uint64_t fileSize) {
  std::vector<unsigned char> bytes(kHeaderSize);
  const int64_t got = platform::ReadAt(descriptor, bytes.data(), bytes.size(), 0);
  if (got < 0) throw Error(path, "cannot read the header: " + SystemReason(errno));
  bytes.resize(static_cast<size_t>(got));
  const StoredHeader header(bytes);
  if (bytes.size() < kHeaderSize) {
    throw Error(path, fileSize < kHeaderSize ? header.problem : "image is cut short");
  }
  if (!header.isMarked) throw Error(path, kNoHeaderMark);
  if (!header.decoded) throw Error(path, "header is damaged: " + header.problem);
  return *header.decoded;
}

uint64_t LimitOfSections(int descriptor, const std::string& path, const DecodedHeader& header,
                         const IndexContents& index, uint64_t length) {
  if (PlaceOfIndex(header.indexOffset, length) != IndexPlace::InFile) return length;
  FileWindow window(descriptor, path);
  const bool isMarked = DecodeIndexStart(window.At(header.indexOffset, kIndexPreamble)).isMarked;
  return isMarked || index.end != 0 ? header.indexOffset : length;
}

}  // namespace capsule::host
