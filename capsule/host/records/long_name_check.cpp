#include "capsule/host/records/long_name_check.h"

#include <algorithm>
#include <array>

#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule::host {
namespace {

constexpr uint8_t kLastPiece = 0x40;
constexpr size_t kPieceBytes = 26;
constexpr uint16_t kFilling = 0xFFFF;

}  // namespace

std::string JudgeLongName(std::span<const unsigned char> group, const _ShortDirEntry& record) {
  if (group.empty() || group.size() % kDirRecordSize != 0) {
    return "records of other sizes between its own";
  }
  const size_t pieces = group.size() / kDirRecordSize - 1;
  if (pieces > kMaxLongNamePieces)
    return "more than " + std::to_string(kMaxLongNamePieces) + " pieces";
  std::array<unsigned char, kMaxLongNamePieces * kPieceBytes> units;
  const auto stored = EncodeShortEntry(record);
  const uint8_t checksum = ShortNameChecksum(std::span(stored).first<11>());
  for (size_t i = 0; i < pieces; ++i) {
    const auto piece = group.subspan(i * kDirRecordSize + kMiniHeaderSize, kDirEntrySize);
    const size_t ordinal = (pieces - i) | (i == 0 ? kLastPiece : 0);
    if (piece[0] != ordinal) {
      return "piece " + std::to_string(piece[0]) + " where " + std::to_string(ordinal) + " belongs";
    }
    if (piece[offsetof(_LongDirEntry, Checksum)] != checksum) {
      return "belongs to another short name";
    }
    const auto name = LongNameUnits(piece.first<kDirEntrySize>());
    std::copy(name.begin(), name.end(),
              units.begin() + static_cast<std::ptrdiff_t>(i * kPieceBytes));
  }
  return JudgeFilling(std::span(units).first(pieces * kPieceBytes));
}

std::string JudgeFilling(std::span<const unsigned char> piecesLastFirst) {
  bool hasEnded = false;
  for (size_t at = 0; at + 2 <= piecesLastFirst.size(); at += 2) {
    const uint16_t unit = platform::LoadLe16(&piecesLastFirst[at]);
    if (at == kPieceBytes) hasEnded = false;
    if (hasEnded && unit != kFilling) return "name goes on behind its end";
    if (unit != 0 && (unit != kFilling || hasEnded)) continue;
    if (at >= kPieceBytes) return "name ends before its last piece";
    if (unit == kFilling) return "name is filled up without an end";
    hasEnded = true;
  }
  return {};
}

}  // namespace capsule::host
