#include "capsule/host/survey_evidence.h"

#include <algorithm>
#include <cmath>
#include <span>

#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

constexpr double kSurest = 0.9995;
constexpr double kMostHidden = 0.5;     // that anything begins or ends in one loss
constexpr double kAnotherClosed = 0.4;  // that one more does
constexpr double kAnotherOpened = 0.3;
constexpr size_t kAttributeAt = 11;  // of a short entry; times and size are behind it

// Never 0. What an entry says but for its name.
uint64_t KeyOfEntry(const _ShortDirEntry& entry) {
  const auto bytes = EncodeShortEntry(entry);
  uint64_t key = 0xCBF29CE484222325;
  for (const unsigned char byte : std::span(bytes).subspan(kAttributeAt)) {
    key = (key ^ byte) * 0x100000001B3;
  }
  return std::max<uint64_t>(key, 1);
}

double HiddenOf(double chance, uint32_t count, double another) {
  if (count == 0) return std::log(1 - chance);
  return std::log(chance) + (count - 1) * std::log(another);
}

}  // namespace

double SurveyEvidence::Share::Value() const { return std::min((fits + 1) / (all + 2), kSurest); }

SurveyEvidence::SurveyEvidence(const std::vector<SurveyItem>& items)
    : m_Items(items), m_Own(items.size()), m_Above(items.size()) {
  ReadKeys();
  Learn();
}

void SurveyEvidence::ReadKeys() {
  const auto nameOfDot = [&](size_t i) {
    const bool isDot =
        i < m_Items.size() && !m_Items[i].isGap && m_Items[i].item.kind == Kind::DotEntry;
    return isDot ? ShortNameToBytes(m_Items[i].item.entry) : std::string();
  };
  for (size_t i = 0; i < m_Items.size(); ++i) {
    const SurveyItem& found = m_Items[i];
    if (found.isGap || found.item.kind != Kind::Directory) continue;
    size_t next = i + 1;
    if (nameOfDot(next) == ".") m_Own[i] = KeyOfEntry(m_Items[next++].item.entry);
    if (nameOfDot(next) == "..") m_Above[i] = KeyOfEntry(m_Items[next].item.entry);
    if (m_Own[i] == 0 && !found.isPlaceholder) m_Own[i] = KeyOfEntry(found.item.entry);
    if (m_Own[i] != 0) ++m_Keys[m_Own[i]];
    ++m_nFolders;
  }
  if (m_Items.empty()) return;
  const SectionItem& last = m_Items.back().item;
  const uint64_t bytes = last.offset + last.length - m_Items.front().item.offset;
  m_FoldersPerByte = (m_nFolders + 1.0) / static_cast<double>(std::max<uint64_t>(bytes, 1));
}

// From what stands between two losses: there every folder is known.
void SurveyEvidence::Learn() {
  struct Open {
    uint32_t folder;
    uint32_t last;
  };
  std::vector<Open> open{{kRoot, kNone}};
  bool isFirst = true;  // nothing is lost yet
  for (uint32_t i = 0; i < m_Items.size(); ++i) {
    const SurveyItem& found = m_Items[i];
    if (found.lost > 0) {
      open.assign(1, {kNone, kNone});
      isFirst = false;
    }
    const Kind kind = found.item.kind;
    if (found.isGap) continue;
    if (kind == Kind::ZeroEntry) {
      if (open.size() > 1)
        open.pop_back();
      else if (!isFirst)
        open.assign(1, {kNone, kNone});
      continue;
    }
    if (kind != Kind::Directory && kind != Kind::File) continue;
    Open& at = open.back();
    if (at.last != kNone && HasName(i) && HasName(at.last)) m_Order.Add(IsInOrder(at.last, i));
    at.last = i;
    if (kind != Kind::Directory) continue;
    if (at.folder == kRoot && m_nRootKey == 0) m_nRootKey = m_Above[i];
    if (at.folder != kNone && m_Above[i] != 0 && KeyOf(at.folder) != 0) {
      m_Times.Add(KeyOf(at.folder) == m_Above[i]);
    }
    open.push_back({i, kNone});
  }
}

bool SurveyEvidence::HasName(uint32_t item) const {
  return !m_Items[item].isPlaceholder && !m_Items[item].item.name.empty();
}

bool SurveyEvidence::IsInOrder(uint32_t before, uint32_t after) const {
  return m_Items[before].item.name < m_Items[after].item.name;
}

double SurveyEvidence::Order(uint32_t before, uint32_t after) const {
  if (before == kNone || !HasName(before) || !HasName(after)) return 0;
  const double share = m_Order.Value();
  return std::log((IsInOrder(before, after) ? share : 1 - share) / 0.5);
}

double SurveyEvidence::Times(uint32_t folder, uint32_t child) const {
  if (m_Above[child] == 0 || KeyOf(folder) == 0) return 0;
  const double share = m_Times.Value();
  const auto known = m_Keys.find(m_Above[child]);
  const double count = known == m_Keys.end() ? 0 : known->second;
  const double chance = (count + 1) / (m_nFolders + 2.0);
  const bool fits = KeyOf(folder) == m_Above[child];
  return std::log(fits ? share / chance : (1 - share) / (1 - chance));
}

double SurveyEvidence::Hidden(uint64_t lost, uint32_t closed, uint32_t opened) const {
  const double chance = std::min(static_cast<double>(lost) * m_FoldersPerByte, kMostHidden);
  return HiddenOf(chance, closed, kAnotherClosed) + HiddenOf(chance, opened, kAnotherOpened);
}

}  // namespace capsule::host
