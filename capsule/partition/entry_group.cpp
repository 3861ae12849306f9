// A group has no length of its own: it goes on while records are pieces of a long name, and ends
// with the first that is none. An entry of zeros is never a piece when it comes first, since then
// it is one that closes a level; behind a piece its attribute decides.
#include "capsule/partition/entry_group.h"

#include <algorithm>

#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

constexpr uint8_t kLastPiece = 0x40;
constexpr uint16_t kFilling = 0xFFFF;

}  // namespace

EntryRole RoleOf(const _ShortDirEntry& entry) {
  if (entry.Name[0] == 0) return EntryRole::Closing;
  if ((entry.Attribute & kDirectoryAttribute) == 0) return EntryRole::File;
  const bool isDot = entry.Name[0] == '.' && DotNameOf(entry) != DotName::None;
  return isDot ? EntryRole::Dot : EntryRole::Folder;
}

DotName DotNameOf(const _ShortDirEntry& entry) {
  const auto stored = EncodeShortEntry(entry);
  const auto isNamed = [&](std::string_view name) {
    return std::equal(name.begin(), name.end(), stored.begin());
  };
  if (isNamed(".          ")) return DotName::Itself;
  return isNamed("..         ") ? DotName::Above : DotName::None;
}

bool EntryGroup::IsPiece(Payload payload, bool isFirst) {
  return payload[offsetof(_LongDirEntry, Attribute)] == kLongNameAttribute &&
         !(isFirst && payload[0] == 0);
}

EntryGroup::Taken EntryGroup::Take(Payload payload) {
  if (IsPiece(payload, m_pieces == 0)) {
    if (m_pieces == kMaxLongNamePieces) return Taken::TooManyPieces;
    AddPiece(payload);
    return Taken::Piece;
  }
  SetEntry(DecodeShortEntry(payload));
  return HasLongName() && Role() == EntryRole::Closing ? Taken::NoEntry : Taken::Entry;
}

void EntryGroup::AddPiece(Payload payload) {
  const auto units = LongNameUnits(payload);
  std::copy(units.begin(), units.end(),
            m_units.begin() + static_cast<std::ptrdiff_t>(m_pieces * kPieceNameBytes));
  m_marks[m_pieces++] = {payload[0], payload[offsetof(_LongDirEntry, Checksum)]};
}

void EntryGroup::SetEntry(const _ShortDirEntry& entry) {
  m_entry = entry;
  if (!HasLongName()) return;
  const auto bytes = EncodeShortEntry(entry);
  m_checksum = ShortNameChecksum(std::span(bytes).first<11>());
}

bool EntryGroup::IsListed() const {
  const EntryRole role = Role();
  return role != EntryRole::Closing && (role != EntryRole::Dot || HasLongName());
}

std::string EntryGroup::Name() const {
  std::string name = LongName();
  return name.empty() ? ShortName() : name;
}

std::optional<EntryGroup::PieceFault> EntryGroup::FaultOf(size_t piece) const {
  const Mark& mark = m_marks[piece];
  const auto ordinal = static_cast<uint8_t>((m_pieces - piece) | (piece == 0 ? kLastPiece : 0));
  if (mark.ordinal != ordinal) return PieceFault{false, mark.ordinal, ordinal};
  if (mark.checksum != m_checksum) return PieceFault{true, mark.checksum, m_checksum};
  return std::nullopt;
}

std::string_view EntryGroup::FaultOfFilling() const {
  const auto unitAt = [bytes = Units()](size_t n) { return platform::LoadLe16(&bytes[2 * n]); };
  constexpr size_t kUnits = kPieceNameBytes / 2;
  const size_t count = m_pieces * kUnits;
  if (m_pieces == 1 && unitAt(0) == 0) return "empty";
  size_t end = 0;  // of the name, in its last piece, which is the first record
  while (end < std::min(count, kUnits) && unitAt(end) != 0) {
    if (unitAt(end++) == kFilling) return "name is filled up without an end";
  }
  for (size_t n = end + 1; n < std::min(count, kUnits); ++n) {
    if (unitAt(n) != kFilling) return "name goes on behind its end";
  }
  for (size_t n = kUnits; n < count; ++n) {
    if (unitAt(n) == 0 || unitAt(n) == kFilling) return "name ends before its last piece";
  }
  return {};
}

}  // namespace capsule
