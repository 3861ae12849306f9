// Ranges of one file: in any order they give the bytes that reading from the front gives.
// First byte: bit 0 compressed, bit 1 an index with restart points; size of the file (3), two
// offsets and lengths (2 each); records. Restart points that are not true give other bytes, but no
// harm.
#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "capsule/container/index_format.h"
#include "capsule/host/error.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/image.h"
#include "capsule/host/index/restart_point.h"
#include "capsule/platform/little_endian.h"
#include "fuzz/check.h"
#include "tests/support/bytes.h"
#include "tests/support/image_maker.h"

namespace {

using namespace capsule;

constexpr size_t kParameters = 12;
constexpr uint8_t kIndexed = 2;  // in the first byte

// Leads to the file, with a restart point at each of the offsets and the last bytes as histories;
// the index has its check value.
std::string WithIndex(const uint8_t* data, size_t size, test::ImageMaker& image) {
  const auto file = static_cast<uint32_t>(kHeaderSize + kPartitionHeaderSize);
  const uint32_t end = image.Here();
  auto& records = image.IndexRecords();
  records[1].name = "AAAAAAAA";
  records[1].length = end - file - kPartitionTrailerSize;
  for (const size_t at : {size_t{4}, size_t{8}}) {
    const uint32_t place = platform::LoadLe16(data + at);
    const size_t history = std::min<size_t>(platform::LoadLe16(data + at + 2), size - kParameters);
    IndexRecord point = host::RestartRecord(file + kDirRecordSize + place % 64, place * 16,
                                            {data + size - history, history});
    point.length = kMiniHeaderSize;
    records.insert(records.end() - 1, point);
  }
  std::string bytes = image.Finish();
  host::IndexChecksum checksum;
  const size_t from = end + kIndexPreamble;
  checksum.Update({test::Unsigned(bytes) + from, bytes.size() - from});
  const auto start = EncodeIndexStart(checksum.Value());
  std::copy(start.begin(), start.end(), &bytes[end]);
  return bytes;
}

std::string MakeImage(const uint8_t* data, size_t size) {
  test::ImageMaker image((data[0] & 1) != 0);
  image.BeginSection();
  image.Entry("AAAAAAAA   ", 0, platform::LoadLe32(data) >> 8);
  image.Append(std::span(data + kParameters, size - kParameters));
  image.EndSection();
  return (data[0] & kIndexed) != 0 ? WithIndex(data, size, image) : image.Bytes();
}

// Everything that can be read from the front, chunk by chunk.
std::vector<unsigned char> ReadFromFront(const host::Image& image, const host::Entry& entry) {
  host::FileReader reader = image.OpenFile(entry);
  std::vector<unsigned char> bytes;
  std::vector<unsigned char> piece(512);
  try {
    while (bytes.size() < reader.Size()) {
      const size_t got = reader.Read(bytes.size(), piece);
      bytes.insert(bytes.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(got));
    }
  } catch (const host::Error&) {
  }
  return bytes;
}

// `isTrue`: what the index tells, if there is one.
void Compare(host::FileReader& reader, uint64_t offset, size_t length,
             const std::vector<unsigned char>& whole, bool isTrue) {
  std::vector<unsigned char> piece(length);
  try {
    const size_t got = reader.Read(offset, piece);
    if (!isTrue) return;
    fuzz::Require(offset + got <= whole.size() || got == 0, "no range has bytes that others lack");
    fuzz::Require(std::equal(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(got),
                             whole.begin() + static_cast<std::ptrdiff_t>(got == 0 ? 0 : offset)),
                  "a range has the bytes of the whole");
  } catch (const host::Error&) {
    fuzz::Require(!isTrue || whole.size() < reader.Size(), "ranges of a sound file can be read");
  }
}

// What is left of the file covers it without a gap, and has the bytes that reading gives as long as
// nothing is lost.
void CompareWhatIsLeft(const host::Image& image, const host::Entry& entry,
                       const std::vector<unsigned char>& whole, bool isTrue) {
  uint64_t end = 0;
  bool isLost = false;
  image.ReadDamaged(entry, 0, entry.Size(), [&](const host::FilePiece& piece) {
    using Kind = host::FilePiece::Kind;
    if (piece.kind != Kind::Data && piece.kind != Kind::Lost) return;
    fuzz::Require(piece.offset == end, "what is left and what is lost cover the file");
    isLost = isLost || piece.kind == Kind::Lost;
    end += piece.kind == Kind::Lost ? piece.length : piece.bytes.size();
    if (isLost || !isTrue || end > whole.size()) return;
    fuzz::Require(std::equal(piece.bytes.begin(), piece.bytes.end(),
                             whole.begin() + static_cast<std::ptrdiff_t>(piece.offset)),
                  "what is left has the bytes of the whole");
  });
  fuzz::Require(end == entry.Size(), "every byte is left or lost");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kParameters || size > 1 << 16) return 0;
  const auto bytes = MakeImage(data, size);
  try {
    const host::Image image(host::MemorySource({test::Unsigned(bytes), bytes.size()}), "fuzz",
                            host::Opening::Salvage);
    const auto entry = image.Find("0:/AAAAAAAA");
    if (!entry || entry->IsDirectory()) return 0;
    const auto whole = ReadFromFront(image, *entry);
    const bool isTrue = (data[0] & kIndexed) == 0;
    CompareWhatIsLeft(image, *entry, whole, isTrue);
    host::FileReader reader = image.OpenFile(*entry);
    for (const size_t at : {size_t{4}, size_t{8}, size_t{4}}) {
      Compare(reader, platform::LoadLe16(data + at) * uint64_t{16},
              platform::LoadLe16(data + at + 2), whole, isTrue);
    }
  } catch (const host::Error&) {
  }
  return 0;
}
