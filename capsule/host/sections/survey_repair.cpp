// A record that lost a byte still stands where it stood. What it was is told by what comes before
// and behind it; what it said is lost.
#include "capsule/host/sections/survey_repair.h"

#include <algorithm>
#include <span>
#include <utility>

#include "capsule/host/file/reason.h"
#include "capsule/host/sections/dot_row.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

constexpr std::ptrdiff_t kMostlyZero = 24;  // of the 32 bytes of an entry

class Repair {
 public:
  Repair(std::vector<SurveyItem> items, const SurveyVisitor& visitor)
      : m_items(std::move(items)), m_visitor(visitor) {
    size_t with = 0;
    size_t without = 0;
    for (size_t i = 0; i < m_items.size(); ++i) {
      if (KindAt(i) != Kind::Directory) continue;
      ++(KindAt(i + 1) == Kind::DotEntry ? with : without);
    }
    m_dotsUsual = with > without;
  }

  std::vector<SurveyItem> Run() {
    for (size_t i = 0; i < m_items.size(); ++i) MendEntry(i);
    for (size_t i = 0; i < m_items.size(); ++i) MendData(i);
    for (size_t i = 0; i < m_items.size(); ++i) MendGap(i);
    if (m_dotsUsual) {
      for (size_t i = 0; i < m_items.size(); ++i) MendDots(i);
      for (size_t i = 0; i < m_items.size(); ++i) MendFolder(i);
    }
    std::vector<SurveyItem> repaired;
    repaired.reserve(m_items.size());
    for (size_t i = 0; i < m_items.size(); ++i) {
      if (LosesFolder(i)) {
        repaired.push_back(LostFolder(m_items[i].item.offset));
        m_visitor.onDamage(m_items[i].item.offset, "the records of its folder are lost");
      }
      repaired.push_back(m_items[i]);
    }
    return repaired;
  }

 private:
  // Of a gap or beyond the end: that of a trailer, which is nothing here. A "." with a long name is
  // none of a folder's own and, like a file, opens nothing.
  Kind KindAt(size_t i) const {
    if (i >= m_items.size() || m_items[i].isGap) return Kind::Trailer;
    const SectionItem& item = m_items[i].item;
    return item.kind == Kind::DotEntry && item.IsEntry() ? Kind::File : item.kind;
  }

  // What the short name says, whether the entry is one of a folder or not. One with a long name is
  // not called so.
  DotName NameAt(size_t i) const {
    const SectionItem& item = m_items[i].item;
    const bool isEntry = item.kind == Kind::DotEntry || item.IsEntry();
    return isEntry && item.length == kDirRecordSize ? DotNameOf(item.entry) : DotName::None;
  }

  DotName DotAt(size_t i) const { return KindAt(i) == Kind::DotEntry ? NameAt(i) : DotName::None; }

  bool IsItself(size_t i) const { return DotAt(i) == DotName::Itself; }
  bool IsAbove(size_t i) const { return DotAt(i) == DotName::Above; }

  bool BeginsBareDots(size_t i) const {
    return AreOfNoFolder([this](size_t n) { return DotAt(n); }, i);
  }

  // The first of the two behind a folder.
  bool IsFolderDot(size_t i) const {
    return IsItself(i) && !BeginsBareDots(i) && (i == 0 || !BeginsBareDots(i - 1));
  }

  // Whether the folder that is to stand in front is not there. A "." behind that of a folder is a
  // damaged "..".
  bool LosesFolder(size_t i) const {
    if (IsAbove(i)) return i > 0 && m_items[i - 1].isGap && m_items[i - 1].lost > 0;
    if (!IsFolderDot(i) || (i > 0 && KindAt(i - 1) == Kind::Directory)) return false;
    return i < 2 || !IsFolderDot(i - 1) || KindAt(i - 2) != Kind::Directory;
  }

  // There is nothing in its bytes to judge it by.
  bool IsTold(size_t i) const { return m_items[i].isGap || m_items[i].isPlaceholder; }

  void Change(size_t i, Kind kind, const std::string& reason) {
    SectionItem& item = m_items[i].item;
    if (item.kind == kind) return;
    m_visitor.onDamage(item.offset, reason);
    item.kind = kind;
    if (kind == Kind::DotEntry) item.name.clear();
    if (kind == Kind::File || kind == Kind::Directory) {
      if (item.name.empty() || HasBadName(item)) item.name = "damaged-" + Hex(item.offset);
      item.shortName = item.name;
      item.dataOffset = item.offset + item.length;
    }
  }

  // A zero entry that is not zero, an entry that mostly is.
  void MendEntry(size_t i) {
    if (IsTold(i)) return;
    SectionItem& item = m_items[i].item;
    const bool isEntry = item.kind == Kind::File || item.kind == Kind::Directory;
    if (item.kind == Kind::ZeroEntry && !IsMostlyZero(item.entry)) {
      const bool wasFolder = (item.entry.Attribute & kDirectoryAttribute) != 0;
      Change(i, wasFolder ? Kind::Directory : Kind::File, "name of an entry begins with a zero");
    } else if (isEntry && item.length == kDirRecordSize && IsMostlyZero(item.entry)) {
      Change(i, Kind::ZeroEntry, "zero entry is not zero");
    } else if (isEntry && HasBadName(item)) {
      m_visitor.onDamage(item.offset, "short name has control characters");
      if (item.name == item.shortName) item.name = item.shortName = "damaged-" + Hex(item.offset);
    }
  }

  // "." and ".." stand behind their folder.
  void MendDots(size_t i) {
    if (IsTold(i)) return;
    const SectionItem& item = m_items[i].item;
    if (item.length != kDirRecordSize) return;
    const bool isFirst = i > 0 && KindAt(i - 1) == Kind::Directory && !IsItself(i);
    const bool isSecond = i > 1 && IsItself(i - 1) && KindAt(i - 2) == Kind::Directory;
    if (NameAt(i) != DotName::None) {
      Change(i, Kind::DotEntry, "entry of the folder itself is not one of a folder");
    } else if (isFirst && IsAbove(i + 1)) {
      Change(i, Kind::DotEntry, "entry of the folder itself is damaged");
    } else if (isSecond && item.kind == Kind::Directory && !IsFolderDot(i + 1)) {
      Change(i, Kind::DotEntry, "entry of the folder above is damaged");
    }
  }

  // Data stands behind a file.
  void MendData(size_t i) {
    if (i + 1 == m_items.size() || !m_items[i + 1].isGap || !m_items[i + 1].hasData) return;
    SectionItem& item = m_items[i].item;
    if (m_items[i].isGap || item.kind != Kind::Directory) return;
    Change(i, Kind::File, "entry of a folder is followed by data");
    item.length += m_items[i + 1].item.length;
  }

  // A folder has "." and ".." behind it, a file has not.
  void MendFolder(size_t i) {
    if (IsTold(i)) return;
    const SectionItem& item = m_items[i].item;
    if (item.kind == Kind::Directory && i + 1 < m_items.size() && !m_items[i + 1].isGap &&
        (KindAt(i + 1) != Kind::DotEntry || BeginsBareDots(i + 1))) {
      Change(i, Kind::File, "entry of a folder is followed by none of its own");
    } else if (item.kind == Kind::File && item.dataOffset == item.offset + item.length &&
               IsFolderDot(i + 1)) {
      Change(i, Kind::Directory, "entry of a file is followed by those of a folder");
    }
  }

  // A lost record between those of a folder is one of its own.
  void MendGap(size_t i) {
    if (i == 0 || m_items[i].lost != kDirRecordSize) return;
    const bool isFirst = KindAt(i - 1) == Kind::Directory && IsAbove(i + 1);
    const bool isSecond = i > 1 && IsFolderDot(i - 1) && KindAt(i - 2) == Kind::Directory;
    if (isFirst || isSecond) m_items[i].lost = 0;
  }

  std::vector<SurveyItem> m_items;
  const SurveyVisitor& m_visitor;
  bool m_dotsUsual = false;
};

}  // namespace

std::vector<SurveyItem> MendSection(std::vector<SurveyItem> items, const SurveyVisitor& visitor) {
  return Repair(std::move(items), visitor).Run();
}

bool IsMostlyZero(const _ShortDirEntry& entry) {
  const auto bytes = EncodeShortEntry(entry);
  return std::count(bytes.begin(), bytes.end(), 0) >= kMostlyZero;
}

bool IsAllZero(const _ShortDirEntry& entry) {
  const auto bytes = EncodeShortEntry(entry);
  return std::all_of(bytes.begin(), bytes.end(), [](unsigned char b) { return b == 0; });
}

bool HasBadName(const SectionItem& item) {
  const auto bytes = EncodeShortEntry(item.entry);
  const auto name = std::span(bytes).first<11>();
  const auto first = name.begin() + (name[0] == kStandsForE5 ? 1 : 0);
  return std::any_of(first, name.end(), [](unsigned char c) { return c < 0x20; });
}

SurveyItem LostFolder(uint64_t offset, const std::string& name) {
  SurveyItem found;
  found.isPlaceholder = true;
  found.item.kind = SectionItem::Kind::Directory;
  found.item.offset = offset;
  found.item.entry.Attribute = kDirectoryAttribute;
  found.item.name = name.empty() ? "damaged-" + Hex(offset) : name;
  found.item.shortName = found.item.name;
  return found;
}

}  // namespace capsule::host
