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
    : m_nBytes(kIndexPreamble + RecordSize(ChecksumRecord(0, 0, 0))) {}

void IndexRecordCounter::Add(const DamageNote& note) { m_nBytes += RecordSize(RecordOf(note)); }

void IndexRecordCounter::Add(const SectionItem& item, const std::string& damage,
                             const std::string& label) {
  const uint64_t checksumSize = RecordSize(ChecksumRecord(0, 0, 0));
  const bool isSection = item.kind == SectionItem::Kind::Section;
  const bool isSound = IsSoundFile(item, damage);
  if (!damage.empty()) Add({0, 0, damage, false});
  if (!label.empty()) m_nBytes += RecordSize(LabelRecord({}, label));
  m_nBytes += RecordSize(ItemRecord(item)) + m_nFileNote + (isSection ? checksumSize : 0);
  m_nFileNote = isSound ? checksumSize : 0;
  if (isSound && !item.isNtfs) m_nRestartBytes += host::MostRestartBytes(item.entry.FileSize);
}

IndexRecordWriter::IndexRecordWriter(const RecordSource& files, int output, uint64_t indexOffset,
                                     std::span<const unsigned char> header, bool hasRestartPoints)
    : m_Source(files),
      m_bRestartPoints(hasRestartPoints),
      m_nIndexOffset(indexOffset),
      m_Window(files.image),
      m_Stream(output, files.image.Name(), indexOffset) {
  RunningChecksum checksum;
  checksum.Update(header);
  m_Stream.Append(ChecksumRecord(checksum.Value(), 0, header.size()));
}

void IndexRecordWriter::Add(const DamageNote& note) { m_Stream.Append(RecordOf(note)); }

void IndexRecordWriter::Add(const SectionItem& item, const std::string& damage,
                            const std::string& label) {
  if (m_bHasLast) AppendLast();
  const bool isSection = item.kind == SectionItem::Kind::Section;
  if (isSection) m_Section.Reset();
  m_File.Reset();
  m_nSectionBefore = m_Section.Value();
  const uint64_t end = CheckedEnd(item);
  Take(item.offset, end, item.kind == SectionItem::Kind::File ? &m_File : nullptr);
  m_bEnded = EndsSection(item);
  if (m_bEnded) EndSection(m_Section.Value(), end);
  m_bHasLast = true;
  m_Last = ItemRecord(item);
  m_strDamage = damage;
  m_label = label;
  m_FileNote.reset();
  if (!IsSoundFile(item, damage)) return;
  m_FileNote = ChecksumRecord(m_File.Value(), item.offset, item.length);
  m_Source.begin = item.dataOffset;
  m_Source.limit = item.offset + item.length;
  m_Source.size = item.entry.FileSize;
  m_Source.rules.kind = item.Records();
}

// The last item and what is said of it.
void IndexRecordWriter::AppendLast() {
  m_Stream.Append(m_Last);
  if (m_Last.type == kIndexSection) {
    m_nSectionStart = m_Last.offset;
    m_nSectionRecord = m_Stream.Append(ChecksumRecord(0, 0, 0));
    if (!m_label.empty()) m_Stream.Append(LabelRecord(m_Last, m_label));
  }
  AppendDamage();
  if (!m_FileNote) return;
  m_Stream.Append(*m_FileNote);
  if (m_bRestartPoints) AppendRestartPoints();
}

void IndexRecordWriter::AppendDamage() {
  if (!m_strDamage.empty()) Add(NoteOn(m_Last, m_strDamage, m_nIndexOffset));
}

void IndexRecordWriter::AppendRestartPoints() {
  const auto append = [this](const IndexRecord& point) {
    m_Stream.Append(point);
    m_nRestartBytes += RecordSize(point);
  };
  const auto known = m_pKnown == nullptr
                         ? std::span<const IndexRecord>()
                         : m_pKnown->Of(m_Source.begin, m_Source.limit, m_Source.size);
  for (IndexRecord point : known) {
    const auto header = m_Window.At(point.offset, kMiniHeaderSize);
    if (header.size() < kMiniHeaderSize) {
      throw Error(ErrorKind::System, m_Source.image.Name(), "changed meanwhile");
    }
    point.length = kMiniHeaderSize + DecodeMiniHeader(header.first<kMiniHeaderSize>()).Length;
    append(point);
  }
  if (known.empty()) FindRestartPoints(m_Source, append);
}

uint64_t IndexRecordWriter::Finish() {
  if (!m_bEnded) EndSection(m_nSectionBefore, m_Last.offset);
  AppendDamage();
  m_Last.length = static_cast<uint32_t>(m_nIndexOffset - m_Last.offset);
  m_Stream.Append(m_Last);
  return m_Stream.Finish();
}

void IndexRecordWriter::EndSection(uint64_t value, uint64_t end) {
  m_Stream.Replace(m_nSectionRecord, ChecksumRecord(value, m_nSectionStart, end - m_nSectionStart));
}

// Counts bytes in for their section, and for their file if they have one.
void IndexRecordWriter::Take(uint64_t at, uint64_t end, RunningChecksum* file) {
  while (at < end) {
    const auto bytes =
        m_Window.At(at, static_cast<size_t>(std::min<uint64_t>(end - at, FileWindow::kSize / 2)));
    if (bytes.empty()) throw Error(m_Source.image.Name(), "ends at " + Hex(at), at);
    m_Section.Update(bytes);
    if (file != nullptr) file->Update(bytes);
    at += bytes.size();
    if (m_onBytes) m_onBytes(at);
  }
}

}  // namespace capsule::host
