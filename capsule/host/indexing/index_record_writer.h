// IndexRecordWriter appends the index records of an image's items, with the check values of what
// they cover and the restart points of long files (index_writer.h has the order).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "capsule/container/index_format.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/indexing/index_stream.h"
#include "capsule/host/records/record_source.h"
#include "capsule/host/sections/section_scanner.h"

namespace capsule::host {

class RestartCollector;

// The bytes that the records of items will take.
class IndexRecordCounter {
 public:
  IndexRecordCounter();

  // Counts the records that IndexRecordWriter writes for the same arguments.
  void Add(const SectionItem& item, const std::string& damage, const std::string& label);
  void Add(const DamageNote& note);

  // Without restart points, and how many bytes those take at most.
  uint64_t Bytes() const { return m_bytes; }
  uint64_t MostRestartBytes() const { return m_restartBytes; }

 private:
  uint64_t m_bytes;
  uint64_t m_fileNoteSize = 0;  // of the last item; it only comes when another follows
  uint64_t m_restartBytes = 0;
};

class IndexRecordWriter {
 public:
  // `files`: what the data records of all files have in common. `output`: the open file that gets
  // the index, at `indexOffset`. `header`: as finally stored.
  IndexRecordWriter(const RecordSource& files, int output, uint64_t indexOffset,
                    std::span<const unsigned char> header, bool hasRestartPoints);

  // Restart points that need not be looked for; `known` must outlive the writer.
  void SetKnownRestarts(const RestartCollector* known) { m_known = known; }

  // `onBytes` learns where in the image check values are at; what it throws ends the work.
  void SetOnBytes(std::function<void(uint64_t at)> onBytes) { m_onBytes = std::move(onBytes); }

  // Appends a note on the image as a whole; to be called before the first item.
  void Add(const DamageNote& note);

  // Takes the next item. `damage`: what is wrong with it, or nothing; a damaged file has neither
  // check value nor restart points. `label`: of a section, or nothing.
  void Add(const SectionItem& item, const std::string& damage, const std::string& label);

  // Makes the last record reach the index; where that ends. It is the record of an item, even when
  // the end of the last section is lost: then the section's check value is for what lies before the
  // last item.
  uint64_t Finish();

  uint64_t RestartBytes() const { return m_restartBytes; }

 private:
  void AppendLast();
  void AppendDamage();
  void AppendRestartPoints();
  void EndSection(uint64_t value, uint64_t end);
  void Take(uint64_t at, uint64_t end, RunningChecksum* file);

  RecordSource m_source;  // of the last item, if it is a file
  bool m_restartPoints;
  const RestartCollector* m_known = nullptr;
  std::function<void(uint64_t)> m_onBytes;
  uint64_t m_indexOffset;
  FileWindow m_window;
  IndexStream m_stream;
  RunningChecksum m_section;
  RunningChecksum m_file;
  uint64_t m_sectionRecord = 0;
  uint64_t m_sectionStart = 0;
  uint64_t m_sectionBefore = 0;  // its check value up to the last item
  bool m_ended = false;
  // The last item waits for the next one: readers see nothing behind the record that ends the
  // index.
  bool m_hasLast = false;
  IndexRecord m_last;
  std::string m_damage;  // of the last item
  std::string m_label;   // the same
  std::optional<IndexRecord> m_fileNote;
  uint64_t m_restartBytes = 0;
};

}  // namespace capsule::host
