// The index is read once, and its check value is computed on the way. Damage may lead that pass
// astray first, so whatever it finds wrong is said only after the check value has been compared;
// when that does not hold, it is the better reason.
#include "capsule/host/index/index_check.h"

#include <algorithm>
#include <span>

#include "capsule/container/index_format.h"
#include "capsule/host/error.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/index_reader.h"
#include "capsule/host/index/partition_label.h"
#include "capsule/host/index/path_hash.h"
#include "capsule/host/index/restart_point.h"
#include "capsule/partition/entry_group.h"
#include "capsule/platform/byte_reader.h"

namespace capsule::host {
namespace {

constexpr uint32_t kMaxOffset = 0x7FFFFFFF;

// Steps through the records of an index and computes its check value on the way.
class IndexWalk {
 public:
  IndexWalk(const ImageFile& image, uint64_t indexOffset)
      : m_image(image), m_reader(image, indexOffset), m_indexOffset(indexOffset) {
    const auto preamble = m_reader.Take(kIndexPreamble);
    if (preamble.size() < kIndexPreamble) Throw("index is cut short");
    m_statedCheck = DecodeIndexStart(preamble).checkValue;
    if (m_statedCheck) m_reader.SumUp(&m_checksum);
  }

  bool IsChecked() const { return m_statedCheck.has_value(); }

  // Where the record that comes next begins in the image.
  uint64_t Position() const { return m_reader.Position(); }

  void Next(IndexRecord* record) {
    if (!m_reader.TakeRecord(record)) Fail("index is cut short");
  }

  // Throws when the check value of the index does not hold. What it says counts only then.
  void Verify() {
    if (!m_statedCheck) return;
    m_reader.TakeRest();
    const uint32_t found = m_checksum.Value();
    if (found == *m_statedCheck) return;
    Throw("index is damaged or cut short: check value is " + Hex(*m_statedCheck) +
          ", its bytes give " + Hex(found));
  }

  // What is wrong with a record, unless damage that the check value tells of explains it.
  [[noreturn]] void Fail(const std::string& what) {
    Verify();
    Throw(what);
  }

 private:
  [[noreturn]] void Throw(const std::string& what) const {
    throw Error(m_image.Name(), what + "; `capsule index` rebuilds it", m_indexOffset);
  }

  const ImageFile& m_image;
  IndexChecksum m_checksum;  // of all that was read behind the preamble
  IndexReader m_reader;
  uint64_t m_indexOffset;
  std::optional<uint32_t> m_statedCheck;
};

void Keep(const IndexRecord& record, IndexContents* contents) {
  if (record.type == kIndexSection) contents->sections.push_back(record.offset);
  if (record.type == kIndexFile || record.type == kIndexZeroEntry) {
    contents->items.push_back(record.offset);
  }
  const bool isEntry =
      record.type == kIndexFile || (record.type == kIndexZeroEntry && !record.name.empty());
  if (!isEntry || !contents->isChecked) return;
  const bool isFile = record.type == kIndexFile;
  const PathHashes hashes = HashesOfPath(record.name);
  contents->entries.push_back(
      {record.offset, isFile, !record.name.empty(), hashes.path, hashes.folder});
}

// A note behind `item`, the latest record that is none: the check value of the header or of the
// item, a restart point of the item, or the label of a section. `place`: where the note begins.
void KeepNote(const IndexRecord& note, const IndexRecord& item, uint64_t place,
              IndexContents* contents) {
  const NoteKind kind = SplitNoteName(note.name).kind;
  const bool isDamage = kind == NoteKind::Damaged || kind == NoteKind::Cut;
  if (isDamage) contents->damages.push_back(*DamageNoteOf(note));
  if (item.type == kIndexSection && note.offset == item.offset) {
    if (auto label = LabelOf(note)) contents->labels.emplace(note.offset, *std::move(label));
  }
  const auto value = ChecksumOfName(note.name);
  if (value && note.offset == 0) contents->headerCheck = value;
  if (item.type != kIndexFile || note.offset < item.offset) return;
  if (value && note.offset == item.offset) {
    contents->checks.push_back({note.offset, note.length, *value});
  }
  if (uint64_t{note.offset} + note.length > uint64_t{item.offset} + item.length) return;
  if (kind != NoteKind::Restart) return;
  if (const auto point = RestartPointOf(note, place)) contents->restarts.push_back(*point);
}

// Most indexes are in order already, and nearly all lists then.
template <typename Item, typename Key>
void SortBy(std::vector<Item>* items, Key key) {
  const auto before = [key](const Item& a, const Item& b) { return key(a) < key(b); };
  if (!std::is_sorted(items->begin(), items->end(), before)) {
    std::sort(items->begin(), items->end(), before);
  }
}

void KeepOrder(const std::vector<uint32_t>& offsets, std::vector<uint32_t>* asNamed) {
  if (!std::is_sorted(offsets.begin(), offsets.end())) *asNamed = offsets;
}

void SortAll(IndexContents* contents) {
  KeepOrder(contents->items, &contents->itemsAsNamed);
  KeepOrder(contents->sections, &contents->sectionsAsNamed);
  const auto itself = [](uint32_t offset) { return offset; };
  const auto byOffset = [](const auto& item) { return item.offset; };
  SortBy(&contents->items, itself);
  SortBy(&contents->sections, itself);
  SortBy(&contents->checks, byOffset);
  SortBy(&contents->entries, byOffset);
  SortBy(&contents->records, byOffset);
  SortBy(&contents->restarts, [](const RestartPoint& point) { return point.record; });
}

// The first of `offsets`, in ascending order, that readers would read as an item more than once.
std::optional<uint32_t> FirstReadTwice(const std::vector<uint32_t>& offsets, FileWindow& window) {
  auto at = std::adjacent_find(offsets.begin(), offsets.end());
  while (at != offsets.end() && IsReadAsNothing(window, *at)) {
    at = std::adjacent_find(std::upper_bound(at, offsets.end(), *at), offsets.end());
  }
  return at == offsets.end() ? std::nullopt : std::optional(*at);
}

}  // namespace

uint32_t IndexContents::LimitOf(uint32_t offset) const {
  const auto item = std::upper_bound(items.begin(), items.end(), offset);
  const auto section = std::upper_bound(sections.begin(), sections.end(), offset);
  return std::min(item == items.end() ? end : *item, section == sections.end() ? end : *section);
}

bool IsReadAsNothing(FileWindow& window, uint64_t offset) {
  const auto bytes = window.At(offset, kDirRecordSize);
  return bytes.size() == kDirRecordSize &&
         RoleOf(DecodeShortEntry(bytes.last<kDirEntrySize>())) == EntryRole::Closing;
}

IndexContents ReadIndex(const ImageFile& image, uint64_t indexOffset, bool keepRecords) {
  IndexWalk walk(image, indexOffset);
  IndexContents contents;
  contents.isChecked = walk.IsChecked();
  IndexRecord record;
  IndexRecord item;  // without its name
  for (uint64_t end = 0; end < indexOffset;) {
    const uint64_t place = walk.Position();
    walk.Next(&record);
    if (!HasIndexBody(record.type)) continue;
    if (record.offset > kMaxOffset || record.offset >= indexOffset) {
      walk.Fail("index names " + Hex(record.offset) + ", which is not in the image");
    }
    end = uint64_t{record.offset} + record.length;
    Keep(record, &contents);
    if ((keepRecords || !contents.isChecked) && record.type != kIndexNote)
      contents.records.push_back(record);
    if (record.type != kIndexNote) {
      item.type = record.type;
      item.offset = record.offset;
      item.length = record.length;
    } else if (contents.isChecked) {
      KeepNote(record, item, place, &contents);
    }
  }
  walk.Verify();
  contents.end = static_cast<uint32_t>(indexOffset);
  SortAll(&contents);
  FileWindow window(image);
  if (const auto twice = FirstReadTwice(contents.items, window)) {
    walk.Fail("index names the item at " + Hex(*twice) + " twice");
  }
  return contents;
}

}  // namespace capsule::host
