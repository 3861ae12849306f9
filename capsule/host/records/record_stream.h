// RecordStream decodes the data block records of one file, one after the other.
//
// 1. Bytes of the image from the first record up to the limit are all it ever looks at.
// 2. A record counts only when it decodes to exactly the length that it states, with its end
//    marker, and the records together cover the file's size exactly: the one that reaches it, and
//    no other, is marked as the last, and less than 512 bytes of padding follow. In NTFS partitions
//    the padding may fill the record.
// 3. The history holds what the records before the current one left, so records are decoded in
//    order; stored records do not touch it and may be passed over unread.
// 4. A pass that reads every record from the first to the last compares the file's check value,
//    when there is one, before the last record counts.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "capsule/host/records/content_check.h"
#include "capsule/host/records/record_source.h"
#include "capsule/host/records/unit_decoder.h"
#include "capsule/partition/directory_records.h"

namespace capsule::host {

class RecordStream {
 public:
  // Throws host::Error when no records between begin and limit can hold `size` bytes.
  explicit RecordStream(RecordSource source);

  const RecordSource& Source() const { return m_source; }

  // The part of the file that the current record holds; both 0 before the first Advance.
  uint64_t ChunkBegin() const { return m_chunkBegin; }
  uint64_t ChunkEnd() const { return m_chunkEnd; }

  // Goes to the next record. `offset`: the first byte of the file that will be asked for.
  void Advance(uint64_t offset);

  // For a file of no bytes, which has no records to advance to: compares its check value.
  void ExpectEmpty();

  // The bytes of the current record, padding included.
  std::span<const unsigned char> Chunk() const { return m_chunk; }

  // Where the next record begins, and what it may refer back to; until the next Advance.
  uint64_t Position() const { return m_record; }
  std::span<const unsigned char> History() const { return m_decoder.History(); }

  // Goes back to before the first record.
  void Restart();

  // Goes to the nearest place at or before `offset` where decoding can go on: the start, where the
  // stream stands, one of up to kMostMarks places that were kept on the way, or a restart point.
  void Seek(uint64_t offset);

  // The same after an Advance that has failed, which leaves the stream of no other use.
  void SeekAfterFailure(uint64_t offset);

 private:
  // The state behind a record.
  struct Mark {
    uint64_t record;
    uint64_t chunkEnd;
    UnitDecoder decoder;
  };

  const Mark* NearestMark(uint64_t offset) const;
  const RestartPoint* NearestRestart(uint64_t offset) const;
  void StartAt(const Mark& mark);
  void StartAt(const RestartPoint& point);
  void KeepMark();
  DataRecord ReadHeader();
  _MiniHeader ReadNtfsHeader();
  _MiniHeader NtfsHeaderAt(uint64_t offset, uint32_t* type);
  void TakeResidentData();
  void CountGroup();
  void CountUpTo(uint64_t offset);
  void ExpectCheck();
  void DecodeRecord(const DataRecord& record);
  uint64_t RequireRoom(uint64_t needed) const;
  std::span<const unsigned char> Window(uint64_t offset, size_t count);
  void Fill(uint64_t offset);
  [[noreturn]] void Fail(const std::string& what) const;
  std::string Place() const;  // of the current record, for messages

  RecordSource m_source;
  uint32_t m_headerSize;
  bool m_isResident = false;  // the whole file is m_resident
  std::vector<unsigned char> m_resident;
  uint64_t m_record = 0;  // offset of the next record, of the current one while it is decoded
  uint64_t m_chunkBegin = 0;
  uint64_t m_chunkEnd = 0;
  uint64_t m_windowBegin = 0;
  std::vector<unsigned char> m_window;
  UnitDecoder m_decoder;
  std::optional<ContentCheck> m_check;
  std::vector<unsigned char> m_chunk;
  std::vector<Mark> m_marks;  // ascending
  uint64_t m_markDistance;    // bytes of the file from one to the next, at least
};

// Why the file that lies there cannot be read completely, or nothing. Throws ShortageError.
std::string ProblemOf(const RecordSource& source);

}  // namespace capsule::host
