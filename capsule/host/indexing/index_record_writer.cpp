#include "capsule/host/indexing/index_record_writer.h"

#include <algorithm>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/restart_point.h"

namespace capsule::host {
namespace {

// What counts for the section's check value ends before the trailer. A region that reached the
// index would end the walk of readers, so a last record without a trailer does not count.
uint64_t CheckedEnd(const SectionItem& item) {
  const uint64_t end = item.offset + item.length;
  if (!EndsSection(item)) return end;
  const bool hasRecord = item.kind == SectionItem::Kind::NtfsEnd && item.dataOffset < end;
  return hasRecord ? item.dataOffset : item.offset;
}

}  // namespace

IndexRecordWriter::IndexRecordWriter(const RecordSource& files, int output, uint64_t indexOffset,
                                     std::span<const unsigned char> header, bool hasRestartPoints)
    : m_source(files),
      m_restartPoints(hasRestartPoints),
      m_indexOffset(indexOffset),
      m_window(files.image),
      m_stream(output, files.image.Name(), indexOffset),
      m_records(m_stream, indexOffset) {
  m_header.Update(header);
}

void IndexRecordWriter::Add(const SectionItem& item, const std::string& damage,
                            const std::string& label) {
  if (item.kind == SectionItem::Kind::Section) m_section.Reset();
  m_file.Reset();
  m_sectionBefore = m_section.Value();
  const uint64_t end = CheckedEnd(item);
  Take(item.offset, end, item.kind == SectionItem::Kind::File ? &m_file : nullptr);
  ItemNotes notes{damage, label};
  if (IsSoundFile(item, damage)) NoteFile(item, &notes);
  m_records.Add(item, std::move(notes));
  m_ended = EndsSection(item);
  if (m_ended) m_records.EndSection(m_section.Value(), end);
}

void IndexRecordWriter::NoteFile(const SectionItem& item, ItemNotes* notes) {
  notes->check = m_file.Value();
  m_source.begin = item.dataOffset;
  m_source.limit = item.offset + item.length;
  m_source.size = item.entry.FileSize;
  m_source.rules.kind = item.Records();
  if (!m_restartPoints) return;
  notes->restarts = [source = m_source](const auto& take) { FindRestartPoints(source, take); };
}

uint64_t IndexRecordWriter::Finish() {
  if (!m_ended) m_records.EndSection(m_sectionBefore, m_records.LastOffset());
  return m_records.Finish(m_indexOffset, m_header.Value());
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
