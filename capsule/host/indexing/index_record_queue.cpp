// The record of an item waits until the next item comes, since readers end at the first record that
// reaches the index: the last item must get a length that does, and nothing may follow it. The
// check values of a section and of the header are known only later, so their records are written
// with zeros and replaced.
#include "capsule/host/indexing/index_record_queue.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/host/index/partition_label.h"
#include "capsule/host/index/restart_point.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr uint8_t kIndexFolder = kIndexZeroEntry;  // everything of the tree that is not a file

IndexRecord MakeRecord(uint8_t type, std::string name, uint64_t offset, uint64_t length) {
  IndexRecord record;
  record.type = type;
  record.name = std::move(name);
  record.offset = static_cast<uint32_t>(offset);
  record.length = static_cast<uint32_t>(length);
  return record;
}

IndexRecord ChecksumRecord(uint64_t value, uint64_t offset, uint64_t length) {
  return MakeRecord(kIndexNote, ChecksumName(value), offset, length);
}

uint64_t RecordSize(const IndexRecord& record) {
  std::vector<unsigned char> bytes;
  AppendIndexRecord(record, &bytes);
  return bytes.size();
}

// The record that stands for an item. That of a trailer covers its last 40 bytes alone.
IndexRecord ItemRecord(const SectionItem& item) {
  switch (item.kind) {
    case SectionItem::Kind::Section:
      return MakeRecord(kIndexSection, "", item.offset, item.length);
    case SectionItem::Kind::File:
    case SectionItem::Kind::NtfsEnd:
      return MakeRecord(kIndexFile, item.path, item.offset, item.length);
    case SectionItem::Kind::Trailer:
      return MakeRecord(kIndexFolder, "", item.offset + item.length - kDirRecordSize,
                        kDirRecordSize);
    default:
      return MakeRecord(item.isNtfs ? kIndexFile : kIndexFolder, item.path, item.offset,
                        item.length);
  }
}

// A note ends before the index: one that reached it would end the walk of readers.
DamageNote NoteOn(const IndexRecord& item, const std::string& damage, uint64_t limit) {
  const uint64_t room = limit - item.offset - 1;
  const auto length = static_cast<uint32_t>(std::min<uint64_t>(item.length, room));
  return {item.offset, length, damage, false};
}

}  // namespace

bool EndsSection(const SectionItem& item) {
  return item.kind == SectionItem::Kind::Trailer || item.kind == SectionItem::Kind::NtfsEnd;
}

bool IsSoundFile(const SectionItem& item, const std::string& damage) {
  return item.kind == SectionItem::Kind::File && damage.empty();
}

IndexRecordCounter::IndexRecordCounter()
    : m_bytes(kIndexPreamble + RecordSize(ChecksumRecord(0, 0, 0))) {}

void IndexRecordCounter::Add(const DamageNote& note) { m_bytes += RecordSize(RecordOf(note)); }

void IndexRecordCounter::Add(const SectionItem& item, const std::string& damage,
                             const std::string& label) {
  const uint64_t checksumSize = RecordSize(ChecksumRecord(0, 0, 0));
  const bool isSection = item.kind == SectionItem::Kind::Section;
  const bool isSound = IsSoundFile(item, damage);
  if (!damage.empty()) Add({0, 0, damage, false});
  if (!label.empty()) m_bytes += RecordSize(LabelRecord({}, label));
  m_bytes += RecordSize(ItemRecord(item)) + m_fileNoteSize + (isSection ? checksumSize : 0);
  m_fileNoteSize = isSound ? checksumSize : 0;
  if (isSound && !item.isNtfs) m_restartBytes += host::MostRestartBytes(item.entry.FileSize);
}

IndexRecordQueue::IndexRecordQueue(IndexStream& stream, uint64_t limit)
    : m_stream(stream),
      m_limit(limit),
      m_headerRecord(stream.Append(ChecksumRecord(0, 0, kHeaderSize))) {}

void IndexRecordQueue::Add(const DamageNote& note) { m_stream.Append(RecordOf(note)); }

void IndexRecordQueue::Add(const SectionItem& item, ItemNotes notes) {
  if (m_hasLast) AppendLast();
  m_hasLast = true;
  m_last = ItemRecord(item);
  m_notes = std::move(notes);
}

// The last item and what is said of it.
void IndexRecordQueue::AppendLast() {
  m_stream.Append(m_last);
  if (m_last.type == kIndexSection) {
    m_sectionStart = m_last.offset;
    m_sectionRecord = m_stream.Append(ChecksumRecord(0, 0, 0));
    if (!m_notes.label.empty()) m_stream.Append(LabelRecord(m_last, m_notes.label));
  }
  AppendDamage();
  if (!m_notes.check) return;
  m_stream.Append(ChecksumRecord(*m_notes.check, m_last.offset, m_last.length));
  if (!m_notes.restarts) return;
  m_notes.restarts([this](const IndexRecord& point) {
    m_stream.Append(point);
    m_restartBytes += RecordSize(point);
  });
}

void IndexRecordQueue::AppendDamage() {
  if (!m_notes.damage.empty()) Add(NoteOn(m_last, m_notes.damage, m_limit));
}

void IndexRecordQueue::EndSection(uint64_t value, uint64_t end) {
  m_stream.Replace(m_sectionRecord, ChecksumRecord(value, m_sectionStart, end - m_sectionStart));
}

uint64_t IndexRecordQueue::Finish(uint64_t indexOffset, uint64_t header) {
  AppendDamage();
  m_last.length = static_cast<uint32_t>(indexOffset - m_last.offset);
  m_stream.Append(m_last);
  m_stream.Replace(m_headerRecord, ChecksumRecord(header, 0, kHeaderSize));
  return m_stream.Finish();
}

}  // namespace capsule::host
