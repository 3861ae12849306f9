// What holds between two losses is counted: how often names are in order, are of one kind, and
// folders repeat the times of the one above. Each measure weighs such a share against chance, so
// what an image does not keep to weighs little.
#include "capsule/host/sections/survey_evidence.h"

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

// A hash of the bytes that is never 0, since 0 stands for what is not known.
uint64_t HashOf(std::span<const unsigned char> bytes) {
  uint64_t hash = 0xCBF29CE484222325;
  for (const unsigned char byte : bytes) hash = (hash ^ byte) * 0x100000001B3;
  return std::max<uint64_t>(hash, 1);
}

// What an entry says but for its name.
uint64_t KeyOfEntry(const _ShortDirEntry& entry) {
  const auto bytes = EncodeShortEntry(entry);
  return HashOf(std::span(bytes).subspan(kAttributeAt));
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// A hash of what kind of name this is: in front of the extension one row of digits is as good as
// another, and so is one row of letters.
uint64_t KindOfName(const std::string& name) {
  const size_t extension = std::min(name.rfind('.'), name.size());
  std::vector<unsigned char> kind;
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    if (i < extension && IsDigit(c)) c = '0';
    if (i < extension && IsLetter(c)) c = 'a';
    const auto byte = static_cast<unsigned char>(c);
    const bool isRow = i < extension && (c == '0' || c == 'a') && !kind.empty();
    if (!isRow || kind.back() != byte) kind.push_back(byte);
  }
  return HashOf(kind);
}

double Measure(bool fits, double share, double chance) {
  return std::log(fits ? share / chance : (1 - share) / (1 - chance));
}

// How likely one of `all` items has this key by chance; `counts` tells how many have which key.
double ChanceOf(uint64_t key, const std::unordered_map<uint64_t, uint32_t>& counts, uint32_t all) {
  const auto known = counts.find(key);
  return ((known == counts.end() ? 0 : known->second) + 1.0) / (all + 2.0);
}

double HiddenOf(double chance, uint32_t count, double another) {
  if (count == 0) return std::log(1 - chance);
  return std::log(chance) + (count - 1) * std::log(another);
}

}  // namespace

double SurveyEvidence::Share::Value() const { return std::min((fits + 1) / (all + 2), kSurest); }

SurveyEvidence::SurveyEvidence(const std::vector<SurveyItem>& items)
    : m_items(items), m_own(items.size()), m_above(items.size()), m_kinds(items.size()) {
  ReadKeys();
  ReadKinds();
  Learn();
}

void SurveyEvidence::ReadKeys() {
  const auto dotAt = [&](size_t i) {
    const bool isDot =
        i < m_items.size() && !m_items[i].isGap && m_items[i].item.kind == Kind::DotEntry;
    return isDot ? DotNameOf(m_items[i].item.entry) : DotName::None;
  };
  for (size_t i = 0; i < m_items.size(); ++i) {
    const SurveyItem& found = m_items[i];
    if (found.isGap || found.item.kind != Kind::Directory) continue;
    size_t next = i + 1;
    if (dotAt(next) == DotName::Itself) m_own[i] = KeyOfEntry(m_items[next++].item.entry);
    if (dotAt(next) == DotName::Above) m_above[i] = KeyOfEntry(m_items[next].item.entry);
    if (m_own[i] == 0 && !found.isPlaceholder) m_own[i] = KeyOfEntry(found.item.entry);
    if (m_own[i] != 0) ++m_keys[m_own[i]];
    ++m_folders;
  }
  if (m_items.empty()) return;
  const SectionItem& last = m_items.back().item;
  const uint64_t bytes = last.offset + last.length - m_items.front().item.offset;
  m_foldersPerByte = (m_folders + 1.0) / static_cast<double>(std::max<uint64_t>(bytes, 1));
}

void SurveyEvidence::ReadKinds() {
  for (uint32_t i = 0; i < m_items.size(); ++i) {
    if (m_items[i].isGap || m_items[i].item.kind != Kind::File || !HasName(i)) continue;
    if (IsBehindLoss(i)) continue;
    m_kinds[i] = KindOfName(m_items[i].item.name);
    ++m_kindCounts[m_kinds[i]];
    ++m_files;
  }
}

// A folder that is open, and the last of its items.
struct SurveyEvidence::Open {
  uint32_t folder = kNone;
  uint32_t last = kNone;
  uint32_t lastFile = kNone;
};

// Learns from the items that stand between two losses, where every folder is known.
void SurveyEvidence::Learn() {
  std::vector<Open> open{{kRoot}};
  bool isFirst = true;  // nothing is lost yet
  for (uint32_t i = 0; i < m_items.size(); ++i) {
    const SurveyItem& found = m_items[i];
    if (found.lost > 0) {
      open.assign(1, {});
      isFirst = false;
    }
    const Kind kind = found.item.kind;
    if (found.isGap) continue;
    if (kind == Kind::ZeroEntry) {
      if (open.size() > 1)
        open.pop_back();
      else if (!isFirst)
        open.assign(1, {});
      continue;
    }
    if (kind != Kind::Directory && kind != Kind::File) continue;
    LearnFrom(i, &open.back());
    if (kind == Kind::Directory) open.push_back({i});
  }
}

void SurveyEvidence::LearnFrom(uint32_t i, Open* at) {
  if (at->last != kNone && HasName(i) && HasName(at->last)) m_order.Add(IsInOrder(at->last, i));
  at->last = i;
  if (m_items[i].item.kind == Kind::File) {
    const bool areKnown = at->lastFile != kNone && m_kinds[at->lastFile] != 0 && m_kinds[i] != 0;
    if (areKnown) m_likeness.Add(m_kinds[at->lastFile] == m_kinds[i]);
    at->lastFile = i;
    return;
  }
  if (at->folder == kRoot && m_rootKey == 0) m_rootKey = m_above[i];
  if (at->folder != kNone && m_above[i] != 0 && KeyOf(at->folder) != 0) {
    m_times.Add(KeyOf(at->folder) == m_above[i]);
  }
}

// Behind a loss the long name may be lost, or the end of it.
bool SurveyEvidence::HasName(uint32_t item) const {
  const SurveyItem& found = m_items[item];
  const std::string& name = found.item.name;
  if (found.isPlaceholder || name.empty() || name.starts_with("damaged-")) return false;
  const bool mayLackLong = IsBehindLoss(item) && name == found.item.shortName;
  return !mayLackLong || name.find('~') == name.npos;
}

bool SurveyEvidence::IsBehindLoss(uint32_t item) const {
  return item > 0 && m_items[item - 1].lost > 0;
}

bool SurveyEvidence::IsInOrder(uint32_t before, uint32_t after) const {
  return m_items[before].item.name < m_items[after].item.name;
}

double SurveyEvidence::Order(uint32_t before, uint32_t after) const {
  if (before == kNone || after == kNone || !HasName(before) || !HasName(after)) return 0;
  return Measure(IsInOrder(before, after), m_order.Value(), 0.5);
}

double SurveyEvidence::Likeness(uint32_t before, uint32_t after) const {
  if (before == kNone || after == kNone || m_kinds[before] == 0 || m_kinds[after] == 0) return 0;
  return Measure(m_kinds[before] == m_kinds[after], m_likeness.Value(),
                 ChanceOf(m_kinds[after], m_kindCounts, m_files));
}

double SurveyEvidence::Times(uint32_t folder, uint32_t child) const {
  if (m_above[child] == 0 || KeyOf(folder) == 0) return 0;
  return Measure(KeyOf(folder) == m_above[child], m_times.Value(),
                 ChanceOf(m_above[child], m_keys, m_folders));
}

double SurveyEvidence::Hidden(uint64_t lost, uint32_t closed, uint32_t opened) const {
  const double chance = std::min(static_cast<double>(lost) * m_foldersPerByte, kMostHidden);
  return HiddenOf(chance, closed, kAnotherClosed) + HiddenOf(chance, opened, kAnotherOpened);
}

}  // namespace capsule::host
