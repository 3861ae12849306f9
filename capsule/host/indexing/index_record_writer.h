// IndexRecordWriter appends the index records of an image's items, with the check values of what
// they cover and the restart points of long files, for which it reads the image.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "capsule/host/file/checksum.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/indexing/index_record_queue.h"
#include "capsule/host/records/record_source.h"

namespace capsule::host {

class IndexRecordWriter {
 public:
  // `files`: what the data records of all files have in common. `output`: the open file that gets
  // the index, at `indexOffset`. `header`: as finally stored.
  IndexRecordWriter(const RecordSource& files, int output, uint64_t indexOffset,
                    std::span<const unsigned char> header, bool hasRestartPoints);

  // `onBytes` learns where in the image check values are at; what it throws ends the work.
  void SetOnBytes(std::function<void(uint64_t at)> onBytes) { m_onBytes = std::move(onBytes); }

  // Appends a note on the image as a whole; to be called before the first item.
  void Add(const DamageNote& note) { m_records.Add(note); }

  // Takes the next item. `damage`: what is wrong with it, or nothing; a damaged file has neither
  // check value nor restart points. `label`: of a section, or nothing.
  void Add(const SectionItem& item, const std::string& damage, const std::string& label);

  // Makes the last record reach the index; where that ends. It is the record of an item, even when
  // the end of the last section is lost: then the section's check value is for what lies before the
  // last item.
  uint64_t Finish();

  uint64_t RestartBytes() const { return m_records.RestartBytes(); }

 private:
  void NoteFile(const SectionItem& item, ItemNotes* notes);
  void Take(uint64_t at, uint64_t end, RunningChecksum* file);

  RecordSource m_source;
  bool m_restartPoints;
  std::function<void(uint64_t)> m_onBytes;
  uint64_t m_indexOffset;
  FileWindow m_window;
  IndexStream m_stream;
  IndexRecordQueue m_records;
  RunningChecksum m_header;
  RunningChecksum m_section;
  RunningChecksum m_file;
  uint64_t m_sectionBefore = 0;  // its check value up to the last item
  bool m_ended = false;
};

}  // namespace capsule::host
