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

constexpr size_t kWindowSize = size_t{128} * 1024;  // holds any record: 8 + 65535 bytes
constexpr size_t kMostMarks = 64;
constexpr uint64_t kMarkDistance = uint64_t{256} * 1024;

std::string Count(uint64_t n) { return std::to_string(n); }

}  // namespace

RecordStream::RecordStream(RecordSource source)
    : m_source(std::move(source)),
      m_headerSize(m_source.rules.HeaderSize()),
      m_markDistance(kMarkDistance) {
  const uint64_t room = m_source.limit - m_source.begin;
  if (m_source.check) m_check.emplace(*m_source.check);
  Restart();
  if (m_source.rules.IsNtfs()) TakeResidentData();
  Restart();
  if (m_isResident) {
    ExpectEmpty();
    Restart();
  }
  const std::string problem = m_isResident ? "" : JudgeSize(m_source.size, room);
  if (!problem.empty()) Fail(problem);
}

void RecordStream::Restart() {
  m_record = m_source.begin;
  m_chunkBegin = m_chunkEnd = 0;
  m_chunk.clear();
  m_decoder.Reset();
  if (m_check) m_check->Restart();
  if (m_isResident) {
    m_chunkEnd = m_source.size;
    m_chunk = m_resident;
  }
}

void RecordStream::SeekAfterFailure(uint64_t offset) {
  Restart();
  Seek(offset);
}

void RecordStream::Seek(uint64_t offset) {
  if (offset < m_chunkBegin) Restart();
  const Mark* mark = NearestMark(offset);
  const RestartPoint* restart = NearestRestart(offset);
  const uint64_t behindMark = mark == nullptr ? 0 : mark->chunkEnd;
  const uint64_t atRestart = restart == nullptr ? 0 : restart->fileOffset;
  if (std::max(behindMark, atRestart) <= m_chunkEnd) return;
  if (behindMark >= atRestart) return StartAt(*mark);
  StartAt(*restart);
}

const RecordStream::Mark* RecordStream::NearestMark(uint64_t offset) const {
  const auto behind =
      std::upper_bound(m_marks.begin(), m_marks.end(), offset,
                       [](uint64_t wanted, const Mark& mark) { return wanted < mark.chunkEnd; });
  return behind == m_marks.begin() ? nullptr : &*std::prev(behind);
}

// A restart point that cannot be true counts as none.
const RestartPoint* RecordStream::NearestRestart(uint64_t offset) const {
  const auto& points = m_source.restarts;
  const auto behind = std::upper_bound(
      points.begin(), points.end(), offset,
      [](uint64_t wanted, const RestartPoint& point) { return wanted < point.fileOffset; });
  if (behind == points.begin()) return nullptr;
  const RestartPoint& point = *std::prev(behind);
  const bool isInFile = point.record >= m_source.begin && point.record < m_source.limit &&
                        point.fileOffset < m_source.size;
  return isInFile && point.fileOffset <= offset ? &point : nullptr;
}

void RecordStream::StartAt(const Mark& mark) {
  m_record = mark.record;
  m_chunkBegin = m_chunkEnd = mark.chunkEnd;
  m_decoder = mark.decoder;
  m_chunk.clear();
}

void RecordStream::StartAt(const RestartPoint& point) {
  std::array<unsigned char, kMaxHistory> bytes;
  const auto history = std::span(bytes).first(point.historyLength);
  const size_t got = m_source.image.ReadAt(point.history, history);
  if (got != history.size()) return;  // the image was cut short meanwhile
  m_decoder.Restore(history);
  m_record = point.record;
  m_chunkBegin = m_chunkEnd = point.fileOffset;
  m_chunk.clear();
}

// When there are too many marks, every other goes, and the next ones are twice as far apart.
void RecordStream::KeepMark() {
  const uint64_t last = m_marks.empty() ? 0 : m_marks.back().chunkEnd;
  if (m_chunkEnd < last + m_markDistance) return;
  m_marks.push_back({m_record, m_chunkEnd, m_decoder});
  if (m_marks.size() < kMostMarks) return;
  for (size_t i = 0; i < kMostMarks / 2; ++i) m_marks[i] = std::move(m_marks[2 * i + 1]);
  m_marks.erase(m_marks.begin() + kMostMarks / 2, m_marks.end());
  m_markDistance *= 2;
}

void RecordStream::Advance(uint64_t offset) {
  if (m_chunkEnd == 0) CountGroup();
  const DataRecord record = ReadHeader();
  const std::string problem = JudgeCoverage(record, m_chunkEnd, m_source.size, m_source.rules);
  if (!problem.empty()) Fail(problem);
  m_chunk.clear();
  if (record.isCompressed || offset < m_chunkEnd + record.chunk) {
    DecodeRecord(record);
    if (m_check) m_check->Take(m_record, Window(m_record, record.Size()));
  }
  m_record += record.Size();
  m_chunkBegin = m_chunkEnd;
  m_chunkEnd += record.chunk;
  KeepMark();
  if (m_chunkEnd >= m_source.size) ExpectCheck();
}

void RecordStream::ExpectEmpty() {
  CountGroup();
  ExpectCheck();
}

// The record group lies in front of the data and has the same check value.
void RecordStream::CountGroup() {
  if (m_check) CountUpTo(m_source.begin);
}

// Counts the bytes up to `offset` that are no data records, but have the same check value.
void RecordStream::CountUpTo(uint64_t offset) {
  const uint64_t end = std::min({offset, m_source.limit, m_check->End()});
  while (m_check->Next() < end) {
    const uint64_t left = std::min<uint64_t>(end - m_check->Next(), kWindowSize);
    m_check->Take(m_check->Next(), Window(m_check->Next(), static_cast<size_t>(left)));
  }
}

// Further FILE records may follow the data of a file, and count.
void RecordStream::ExpectCheck() {
  if (!m_check) return;
  if (m_source.rules.IsNtfs() && m_check->Next() == m_record) {
    CountUpTo(m_check->End());
    m_record = m_check->Next();
  }
  if (m_check->Next() != std::min(m_record, m_check->End())) return;
  const FileCheck& check = *m_source.check;
  const std::string problem = m_record == m_check->End()
                                  ? m_check->Judge()
                                  : "check value of the item at " + Hex(check.offset) + " is for " +
                                        Count(check.length) + " bytes, its records have " +
                                        Count(m_record - check.offset);
  if (problem.empty()) return;
  throw Error(m_source.image.Name(), m_source.entryPath + ": " + problem, check.offset);
}

void RecordStream::DecodeRecord(const DataRecord& record) {
  const auto payload = Window(m_record, record.Size()).subspan(record.headerSize);
  if (!record.isCompressed) {
    m_chunk.assign(payload.begin(), payload.end());
    return;
  }
  m_chunk.resize(record.chunk);
  const std::string problem = m_decoder.Decode(payload, m_chunk);
  if (!problem.empty()) Fail(problem);
}

// How many bytes there are from the current record on; at least `needed`.
uint64_t RecordStream::RequireRoom(uint64_t needed) const {
  const uint64_t room = m_record < m_source.limit ? m_source.limit - m_record : 0;
  if (room < needed) {
    Fail("its records end after " + Count(m_chunkEnd) + " of " + Count(m_source.size) + " bytes");
  }
  return room;
}

DataRecord RecordStream::ReadHeader() {
  RequireRoom(m_headerSize);
  const _MiniHeader header =
      m_source.rules.IsNtfs()
          ? ReadNtfsHeader()
          : DecodeMiniHeader(Window(m_record, kMiniHeaderSize).first<kMiniHeaderSize>());
  const uint64_t room = RequireRoom(m_headerSize) - m_headerSize;
  if (!m_source.rules.IsNtfs() && header.Type != kRecordDataBlock) {
    Fail("record is of type " + Count(header.Type) + ", a data block is " +
         Count(kRecordDataBlock) + "; " + Count(m_chunkEnd) + " of " + Count(m_source.size) +
         " bytes were read");
  }
  if (header.Length > room) {
    Fail("payload is " + Count(header.Length) + " bytes, " + Count(room) + " remain");
  }
  return DataRecordOf(header, m_source.rules);
}

std::span<const unsigned char> RecordStream::Window(uint64_t offset, size_t count) {
  const uint64_t end = m_windowBegin + m_window.size();
  if (offset < m_windowBegin || offset + count > end) {
    Fill(offset);
    if (m_window.size() < count) {
      Fail("needs " + Count(count) + " bytes, the file has " + Count(m_window.size()) + " more");
    }
  }
  return std::span(m_window).subspan(static_cast<size_t>(offset - m_windowBegin), count);
}

void RecordStream::Fill(uint64_t offset) {
  m_window.resize(static_cast<size_t>(std::min<uint64_t>(kWindowSize, m_source.limit - offset)));
  m_windowBegin = offset;
  try {
    m_window.resize(m_source.image.ReadAt(offset, m_window));
  } catch (const Error& error) {
    m_window.clear();
    if (!error.Code()) Fail("cannot be read: " + error.Reason());
    ThrowSystemError(m_source.image.Name(), Place() + "cannot be read", error.Code(), m_record);
  } catch (...) {
    m_window.clear();
    throw;
  }
}

void RecordStream::Fail(const std::string& what) const {
  throw Error(m_source.image.Name(), Place() + what, m_record);
}

std::string RecordStream::Place() const {
  return m_source.entryPath + ": data block at " + Hex(m_record) + ": ";
}

std::string ProblemOf(const RecordSource& source) {
  try {
    RecordStream records(source);
    if (source.size == 0) records.ExpectEmpty();
    while (records.ChunkEnd() < source.size) records.Advance(records.ChunkEnd());
    return {};
  } catch (const ShortageError&) {
    throw;
  } catch (const Error& error) {
    return WithoutPath(error.Reason(), source.entryPath);
  }
}

}  // namespace capsule::host
