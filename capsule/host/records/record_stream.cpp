// Records are read through one window and decoded one after the other. Some states are kept on the
// way as marks, thinned out as the file grows, so that going back costs bounded memory and does not
// begin at the first record.
#include "capsule/host/records/record_stream.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/records/record_judge.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr size_t kWindowSize = 128 * 1024;  // holds any record: 8 + 65535 bytes
constexpr size_t kMostMarks = 64;
constexpr uint64_t kMarkDistance = 256 * 1024;

std::string Count(uint64_t n) { return std::to_string(n); }

}  // namespace

RecordStream::RecordStream(RecordSource source)
    : m_Source(std::move(source)),
      m_nHeaderSize(m_Source.rules.HeaderSize()),
      m_nMarkDistance(kMarkDistance) {
  const uint64_t room = m_Source.limit - m_Source.begin;
  if (m_Source.check) m_Check.emplace(*m_Source.check);
  Restart();
  if (m_Source.rules.IsNtfs()) TakeResidentData();
  Restart();
  if (m_bResident) {
    CheckEmpty();
    Restart();
  }
  const std::string problem = m_bResident ? "" : JudgeSize(m_Source.size, room);
  if (!problem.empty()) Fail(problem);
}

void RecordStream::Restart() {
  m_nRecord = m_Source.begin;
  m_nChunkBegin = m_nChunkEnd = 0;
  m_Chunk.clear();
  m_Decoder.Reset();
  if (m_Check) m_Check->Restart();
  if (m_bResident) {
    m_nChunkEnd = m_Source.size;
    m_Chunk = m_Resident;
  }
}

void RecordStream::SeekAfterFailure(uint64_t offset) {
  Restart();
  Seek(offset);
}

void RecordStream::Seek(uint64_t offset) {
  if (offset < m_nChunkBegin) Restart();
  const Mark* mark = NearestMark(offset);
  const RestartPoint* restart = NearestRestart(offset);
  const uint64_t behindMark = mark == nullptr ? 0 : mark->chunkEnd;
  const uint64_t atRestart = restart == nullptr ? 0 : restart->fileOffset;
  if (std::max(behindMark, atRestart) <= m_nChunkEnd) return;
  if (behindMark >= atRestart) return StartAt(*mark);
  StartAt(*restart);
}

const RecordStream::Mark* RecordStream::NearestMark(uint64_t offset) const {
  const auto behind =
      std::upper_bound(m_Marks.begin(), m_Marks.end(), offset,
                       [](uint64_t wanted, const Mark& mark) { return wanted < mark.chunkEnd; });
  return behind == m_Marks.begin() ? nullptr : &*std::prev(behind);
}

// A restart point that cannot be true counts as none.
const RestartPoint* RecordStream::NearestRestart(uint64_t offset) const {
  const auto& points = m_Source.restarts;
  const auto behind = std::upper_bound(
      points.begin(), points.end(), offset,
      [](uint64_t wanted, const RestartPoint& point) { return wanted < point.fileOffset; });
  if (behind == points.begin()) return nullptr;
  const RestartPoint& point = *std::prev(behind);
  const bool isInFile = point.record >= m_Source.begin && point.record < m_Source.limit &&
                        point.fileOffset < m_Source.size;
  return isInFile && point.fileOffset <= offset ? &point : nullptr;
}

void RecordStream::StartAt(const Mark& mark) {
  m_nRecord = mark.record;
  m_nChunkBegin = m_nChunkEnd = mark.chunkEnd;
  m_Decoder = mark.decoder;
  m_Chunk.clear();
}

void RecordStream::StartAt(const RestartPoint& point) {
  std::array<unsigned char, kMaxHistory> bytes;
  const auto history = std::span(bytes).first(point.historyLength);
  const size_t got = m_Source.image.ReadAt(point.history, history);
  if (got != history.size()) return;  // the image was cut short meanwhile
  m_Decoder.Restore(history);
  m_nRecord = point.record;
  m_nChunkBegin = m_nChunkEnd = point.fileOffset;
  m_Chunk.clear();
}

// When there are too many marks, every other goes, and the next ones are twice as far apart.
void RecordStream::KeepMark() {
  const uint64_t last = m_Marks.empty() ? 0 : m_Marks.back().chunkEnd;
  if (m_nChunkEnd < last + m_nMarkDistance) return;
  m_Marks.push_back({m_nRecord, m_nChunkEnd, m_Decoder});
  if (m_Marks.size() < kMostMarks) return;
  for (size_t i = 0; i < kMostMarks / 2; ++i) m_Marks[i] = std::move(m_Marks[2 * i + 1]);
  m_Marks.erase(m_Marks.begin() + kMostMarks / 2, m_Marks.end());
  m_nMarkDistance *= 2;
}

void RecordStream::Advance(uint64_t offset) {
  if (m_nChunkEnd == 0) CountGroup();
  const DataRecord record = ReadHeader();
  const std::string problem = JudgeCoverage(record, m_nChunkEnd, m_Source.size, m_Source.rules);
  if (!problem.empty()) Fail(problem);
  m_Chunk.clear();
  if (record.isCompressed || offset < m_nChunkEnd + record.chunk) {
    DecodeRecord(record);
    if (m_Check) m_Check->Take(m_nRecord, Window(m_nRecord, record.Size()));
  }
  m_nRecord += record.Size();
  m_nChunkBegin = m_nChunkEnd;
  m_nChunkEnd += record.chunk;
  KeepMark();
  if (m_nChunkEnd >= m_Source.size) CompareCheck();
}

void RecordStream::CheckEmpty() {
  CountGroup();
  CompareCheck();
}

// The record group lies in front of the data and has the same check value.
void RecordStream::CountGroup() {
  if (m_Check) CountUpTo(m_Source.begin);
}

// Counts the bytes up to `offset` that are no data records, but have the same check value.
void RecordStream::CountUpTo(uint64_t offset) {
  const uint64_t end = std::min({offset, m_Source.limit, m_Check->End()});
  while (m_Check->Next() < end) {
    const uint64_t left = std::min<uint64_t>(end - m_Check->Next(), kWindowSize);
    m_Check->Take(m_Check->Next(), Window(m_Check->Next(), static_cast<size_t>(left)));
  }
}

// Further FILE records may follow the data of a file, and count.
void RecordStream::CompareCheck() {
  if (!m_Check) return;
  if (m_Source.rules.IsNtfs() && m_Check->Next() == m_nRecord) {
    CountUpTo(m_Check->End());
    m_nRecord = m_Check->Next();
  }
  if (m_Check->Next() != std::min(m_nRecord, m_Check->End())) return;
  const FileCheck& check = *m_Source.check;
  const std::string problem = m_nRecord == m_Check->End()
                                  ? m_Check->Judge()
                                  : "check value of the item at " + Hex(check.offset) + " is for " +
                                        Count(check.length) + " bytes, its records have " +
                                        Count(m_nRecord - check.offset);
  if (problem.empty()) return;
  throw Error(m_Source.image.Name(), m_Source.entryPath + ": " + problem, check.offset);
}

void RecordStream::DecodeRecord(const DataRecord& record) {
  const auto payload = Window(m_nRecord, record.Size()).subspan(record.headerSize);
  if (!record.isCompressed) {
    m_Chunk.assign(payload.begin(), payload.end());
    return;
  }
  m_Chunk.resize(record.chunk);
  const std::string problem = m_Decoder.Decode(payload, m_Chunk);
  if (!problem.empty()) Fail(problem);
}

// How many bytes there are from the current record on; at least `needed`.
uint64_t RecordStream::CheckRoom(uint64_t needed) const {
  const uint64_t room = m_nRecord < m_Source.limit ? m_Source.limit - m_nRecord : 0;
  if (room < needed) {
    Fail("its records end after " + Count(m_nChunkEnd) + " of " + Count(m_Source.size) + " bytes");
  }
  return room;
}

DataRecord RecordStream::ReadHeader() {
  CheckRoom(m_nHeaderSize);
  const _MiniHeader header =
      m_Source.rules.IsNtfs()
          ? ReadNtfsHeader()
          : DecodeMiniHeader(Window(m_nRecord, kMiniHeaderSize).first<kMiniHeaderSize>());
  const uint64_t room = CheckRoom(m_nHeaderSize) - m_nHeaderSize;
  if (!m_Source.rules.IsNtfs() && header.Type != kRecordDataBlock) {
    Fail("record is of type " + Count(header.Type) + ", a data block is " +
         Count(kRecordDataBlock) + "; " + Count(m_nChunkEnd) + " of " + Count(m_Source.size) +
         " bytes were read");
  }
  if (header.Length > room) {
    Fail("payload is " + Count(header.Length) + " bytes, " + Count(room) + " remain");
  }
  return DataRecordOf(header, m_Source.rules);
}

std::span<const unsigned char> RecordStream::Window(uint64_t offset, size_t count) {
  const uint64_t end = m_nWindowBegin + m_Window.size();
  if (offset < m_nWindowBegin || offset + count > end) {
    Fill(offset);
    if (m_Window.size() < count) {
      Fail("needs " + Count(count) + " bytes, the file has " + Count(m_Window.size()) + " more");
    }
  }
  return std::span(m_Window).subspan(static_cast<size_t>(offset - m_nWindowBegin), count);
}

void RecordStream::Fill(uint64_t offset) {
  m_Window.resize(static_cast<size_t>(std::min<uint64_t>(kWindowSize, m_Source.limit - offset)));
  m_nWindowBegin = offset;
  try {
    m_Window.resize(m_Source.image.ReadAt(offset, m_Window));
  } catch (const Error& error) {
    m_Window.clear();
    if (!error.Code()) Fail("cannot be read: " + error.Reason());
    ThrowSystemError(m_Source.image.Name(), Place() + "cannot be read", error.Code(), m_nRecord);
  } catch (...) {
    m_Window.clear();
    throw;
  }
}

void RecordStream::Fail(const std::string& what) const {
  throw Error(m_Source.image.Name(), Place() + what, m_nRecord);
}

std::string RecordStream::Place() const {
  return m_Source.entryPath + ": data block at " + Hex(m_nRecord) + ": ";
}

std::string ProblemOf(const RecordSource& source) {
  try {
    RecordStream records(source);
    if (source.size == 0) records.CheckEmpty();
    while (records.ChunkEnd() < source.size) records.Advance(records.ChunkEnd());
    return {};
  } catch (const ShortageError&) {
    throw;
  } catch (const Error& error) {
    return WithoutPath(error.Reason(), source.entryPath);
  }
}

}  // namespace capsule::host
