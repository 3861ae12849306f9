// Tells images from other files.
#include "capsule/host/index/image_header.h"

#include <algorithm>

#include "capsule/host/error.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/file/reason.h"

namespace capsule::host {

ErrorKind KindOfBadHeader(const StoredHeader& header) {
  return header.isComplete && header.isMarked ? ErrorKind::Damaged : ErrorKind::NotAnImage;
}

void RequireIndexInFile(const DecodedHeader& header, const ImageFile& image) {
  const std::string& path = image.Name();
  const uint64_t fileSize = image.Size();
  switch (PlaceOfIndex(header.indexOffset, fileSize)) {
    case IndexPlace::None:
      throw Error(path, "image has no index; `capsule index` makes one");
    case IndexPlace::InHeader:
      throw Error(
          ErrorKind::NotAnImage, path,
          "not an image: its index would lie inside the header, at " + Hex(header.indexOffset));
    case IndexPlace::BehindFile:
      throw Error(path, "image is cut short: its index begins at " +
                            std::to_string(header.indexOffset) + ", the file has " +
                            std::to_string(fileSize) + " bytes");
    case IndexPlace::InFile:
      break;
  }
}

DecodedHeader ReadImageHeader(const ImageFile& image) {
  const std::string& path = image.Name();
  std::vector<unsigned char> bytes(kHeaderSize);
  bytes.resize(image.ReadAt(0, bytes));
  const StoredHeader header(bytes);
  const bool isCut = !header.isComplete && image.Size() >= kHeaderSize;  // meanwhile
  if (isCut) throw Error(path, "image is cut short");
  if (!header.isComplete) throw Error(ErrorKind::NotAnImage, path, header.problem);
  if (!header.isMarked) throw Error(ErrorKind::NotAnImage, path, kNoHeaderMark);
  if (!header.decoded) throw Error(path, "header is damaged: " + header.problem);
  return *header.decoded;
}

uint64_t LimitOfSections(const ImageFile& image, const DecodedHeader& header,
                         const IndexContents& index, uint64_t length) {
  if (PlaceOfIndex(header.indexOffset, length) != IndexPlace::InFile) return length;
  FileWindow window(image);
  const bool isMarked = DecodeIndexStart(window.At(header.indexOffset, kIndexPreamble)).isMarked;
  return isMarked || index.end != 0 ? header.indexOffset : length;
}

}  // namespace capsule::host
