// The record of an item waits until the next item comes, since readers end at the first record that
// reaches the index: the last item must get a length that does, and nothing may follow it. A
// section's check value is known only at its end, so its record is written with zeros and replaced.
#include "capsule/host/indexing/index_record_writer.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/partition_label.h"
#include "capsule/host/index/restart_point.h"
#include "capsule/host/indexing/restart_collector.h"
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

bool EndsSection(const SectionItem& item) {
  return item.kind == SectionItem::Kind::Trailer || item.kind == SectionItem::Kind::NtfsEnd;
}

// What counts for the section's check value ends before the trailer. A region that reached the
// index would end the walk of readers, so a last record without a trailer does not count.
uint64_t CheckedEnd(const SectionItem& item) {
  const uint64_t end = item.offset + item.length;
  if (!EndsSection(item)) return end;
  const bool hasRecord = item.kind == SectionItem::Kind::NtfsEnd && item.dataOffset < end;
  return hasRecord ? item.dataOffset : item.offset;
}

bool IsSoundFile(const SectionItem& item, const std::string& damage) {
  return item.kind == SectionItem::Kind::File && damage.empty();
}

// A note ends before the index: one that reached it would end the walk of readers.
DamageNote NoteOn(const IndexRecord& item, const std::string& damage, uint64_t indexOffset) {
  const uint64_t room = indexOffset - item.offset - 1;
  const auto length = static_cast<uint32_t>(std::min<uint64_t>(item.length, room));
  return {item.offset, length, damage, false};
}

}  // namespace

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

IndexRecordWriter::IndexRecordWriter(const RecordSource& files, int output, uint64_t indexOffset,
                                     std::span<const unsigned char> header, bool hasRestartPoints)
    : m_source(files),
      m_restartPoints(hasRestartPoints),
      m_indexOffset(indexOffset),
      m_window(files.image),
      m_stream(output, files.image.Name(), indexOffset) {
  RunningChecksum checksum;
  checksum.Update(header);
  m_stream.Append(ChecksumRecord(checksum.Value(), 0, header.size()));
}

void IndexRecordWriter::Add(const DamageNote& note) { m_stream.Append(RecordOf(note)); }

void IndexRecordWriter::Add(const SectionItem& item, const std::string& damage,
                            const std::string& label) {
  if (m_hasLast) AppendLast();
  const bool isSection = item.kind == SectionItem::Kind::Section;
  if (isSection) m_section.Reset();
  m_file.Reset();
  m_sectionBefore = m_section.Value();
  const uint64_t end = CheckedEnd(item);
  Take(item.offset, end, item.kind == SectionItem::Kind::File ? &m_file : nullptr);
  m_ended = EndsSection(item);
  if (m_ended) EndSection(m_section.Value(), end);
  m_hasLast = true;
  m_last = ItemRecord(item);
  m_damage = damage;
  m_label = label;
  m_fileNote.reset();
  if (!IsSoundFile(item, damage)) return;
  m_fileNote = ChecksumRecord(m_file.Value(), item.offset, item.length);
  m_source.begin = item.dataOffset;
  m_source.limit = item.offset + item.length;
  m_source.size = item.entry.FileSize;
  m_source.rules.kind = item.Records();
}

// The last item and what is said of it.
void IndexRecordWriter::AppendLast() {
  m_stream.Append(m_last);
  if (m_last.type == kIndexSection) {
    m_sectionStart = m_last.offset;
    m_sectionRecord = m_stream.Append(ChecksumRecord(0, 0, 0));
    if (!m_label.empty()) m_stream.Append(LabelRecord(m_last, m_label));
  }
  AppendDamage();
  if (!m_fileNote) return;
  m_stream.Append(*m_fileNote);
  if (m_restartPoints) AppendRestartPoints();
}

void IndexRecordWriter::AppendDamage() {
  if (!m_damage.empty()) Add(NoteOn(m_last, m_damage, m_indexOffset));
}

void IndexRecordWriter::AppendRestartPoints() {
  const auto append = [this](const IndexRecord& point) {
    m_stream.Append(point);
    m_restartBytes += RecordSize(point);
  };
  const auto known = m_known == nullptr
                         ? std::span<const IndexRecord>()
                         : m_known->Of(m_source.begin, m_source.limit, m_source.size);
  for (IndexRecord point : known) {
    const auto header = m_window.At(point.offset, kMiniHeaderSize);
    if (header.size() < kMiniHeaderSize) {
      throw Error(ErrorKind::System, m_source.image.Name(), "changed meanwhile");
    }
    point.length = kMiniHeaderSize + DecodeMiniHeader(header.first<kMiniHeaderSize>()).Length;
    append(point);
  }
  if (known.empty()) FindRestartPoints(m_source, append);
}

uint64_t IndexRecordWriter::Finish() {
  if (!m_ended) EndSection(m_sectionBefore, m_last.offset);
  AppendDamage();
  m_last.length = static_cast<uint32_t>(m_indexOffset - m_last.offset);
  m_stream.Append(m_last);
  return m_stream.Finish();
}

void IndexRecordWriter::EndSection(uint64_t value, uint64_t end) {
  m_stream.Replace(m_sectionRecord, ChecksumRecord(value, m_sectionStart, end - m_sectionStart));
}

// Counts bytes in for their section, and for their file if they have one.
void IndexRecordWriter::Take(uint64_t at, uint64_t end, RunningChecksum* file) {
  while (at < end) {
    const auto bytes =
        m_window.At(at, static_cast<size_t>(std::min<uint64_t>(end - at, FileWindow::kSize / 2)));
    if (bytes.empty()) throw Error(m_source.image.Name(), "ends at " + Hex(at), at);
    m_section.Update(bytes);
    if (file != nullptr) file->Update(bytes);
    at += bytes.size();
    if (m_onBytes) m_onBytes(at);
  }
}

}  // namespace capsule::host
