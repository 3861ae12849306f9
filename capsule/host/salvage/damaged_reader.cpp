// Runs of records are surveyed and placed part by part, then read in order. Lost stretches are held
// open until good bytes come, so that several losses in a row are told as one.
#include "capsule/host/salvage/damaged_reader.h"

#include <algorithm>
#include <utility>

#include "capsule/host/file/reason.h"
#include "capsule/host/records/ntfs_entry.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr size_t kWindowSize = size_t{256} * 1024;

// Fewer good bytes than this between lost ones are not worth a range of their own.
constexpr size_t kLeastRun = 4;

constexpr char kBehindLoss[] = "hangs on lost bytes";

}  // namespace

DamagedReader::DamagedReader(RecordSource source, std::string problem, uint64_t begin, uint64_t end,
                             const TakePiece& take)
    : m_source(std::move(source)),
      m_problem(std::move(problem)),
      m_begin(begin),
      m_end(std::min(end, m_source.size)),
      m_take(take),
      m_window(m_source.image, kWindowSize) {}

void DamagedReader::Run() {
  RecordSource part = m_source;
  for (const RestartPoint& point : m_source.restarts) {
    const bool isAhead = point.record > part.begin && point.record < m_source.limit &&
                         point.fileOffset > m_part && point.fileOffset < m_source.size;
    if (!isAhead) continue;
    part.limit = point.record;
    part.size = point.fileOffset - m_part;
    part.goesOn = true;
    ReadPart(part);
    part.begin = point.record;
    m_part = point.fileOffset;
    TakeHistory(point);
  }
  part.limit = m_source.limit;
  part.size = m_source.size - m_part;
  part.goesOn = false;
  ReadPart(part);
  EndLoss();
  if (m_anyLost && !m_source.check) return;
  m_take({FilePiece::Kind::Uncertain,
          m_begin,
          m_end - m_begin,
          {},
          m_anyLost ? "the check value is for the whole file" : m_problem});
}

void DamagedReader::TakeHistory(const RestartPoint& point) {
  const auto history = m_window.At(point.history, point.historyLength);
  if (history.size() < point.historyLength) return LoseHistory();
  m_decoders[0].Restore(history);
  m_sure = true;
}

void DamagedReader::ReadPart(const RecordSource& part) {
  std::vector<RecordRun> runs = SurveyRecords(part);
  MendRuns(part, runs);
  PlaceRuns(part, runs);
  std::string reason;
  for (const RecordRun& run : runs) {
    if (run.isDamage) {
      reason = "no whole data records at " + Hex(run.begin) + " to " + Hex(run.end);
      LoseHistory();
      continue;
    }
    if (run.isPlaced) Lose(m_part + run.offset, reason);
    ReadRun(run);
    if (!run.isPlaced) reason = "records at " + Hex(run.begin) + " cannot be placed";
  }
  Lose(m_part + part.size, reason.empty() ? "records end at " + Hex(part.limit) : reason);
}

void DamagedReader::ReadRun(const RecordRun& run) {
  uint64_t at = run.begin;
  if (run.isRepaired) {
    const uint32_t headerSize = m_source.rules.HeaderSize();
    const auto payload = static_cast<uint32_t>(run.end - run.begin) - headerSize;
    const DataRecord record{headerSize, payload, run.chunk, run.isCompressed,
                            run.isLast ? uint8_t{1} : uint8_t{0}};
    const auto bytes = m_window.At(at, record.Size());
    if (bytes.size() < record.Size()) return;
    return ReadRecord(record, bytes.subspan(headerSize), run, m_part + run.offset);
  }
  for (uint64_t i = 0; i < run.records; ++i) {
    if (m_source.rules.IsNtfs()) at = SkipNtfsCompanions(m_window, at, run.end);
    const auto header = m_window.At(at, m_source.rules.HeaderSize());
    const auto record = DecodeDataRecord(header, m_source.rules);
    if (!record) return;
    const auto bytes = m_window.At(at, record->Size());
    if (bytes.size() < record->Size()) return;
    ReadRecord(*record, bytes.subspan(record->headerSize), run,
               m_part + run.offset + i * run.chunk);
    at += record->Size();
  }
}

void DamagedReader::ReadRecord(const DataRecord& record, std::span<const unsigned char> payload,
                               const RecordRun& run, uint64_t offset) {
  if (!record.isCompressed) return Keep(payload, offset, run.isPlaced);
  bool isGood = true;
  for (size_t i = 0; i < (m_sure ? 1 : 2); ++i) {
    m_chunks[i].resize(record.chunk);
    isGood = m_decoders[i].Decode(payload, m_chunks[i]).empty() && isGood;
  }
  if (isGood) return TakeCompressed(offset, run.isPlaced);
  // Whole by itself, but not with the history it has: it refers back before the file's first byte.
  LoseHistory();
  if (run.isPlaced) Lose(offset + record.chunk, "refers back before the start of the file");
}

void DamagedReader::TakeCompressed(uint64_t offset, bool isPlaced) {
  const auto& first = m_chunks[0];
  const auto& second = m_chunks[1];
  if (m_sure) return Keep(first, offset, isPlaced);
  const size_t size = first.size();
  for (size_t at = 0; at < size;) {
    size_t good = at;
    while (good < size && first[good] == second[good]) ++good;
    if (good - at >= kLeastRun || (good == size && good > at)) {
      Keep(std::span(first).subspan(at, good - at), offset + at, isPlaced);
      at = good;
      continue;
    }
    while (good < size && first[good] != second[good]) ++good;
    if (isPlaced) Lose(offset + good, kBehindLoss);
    at = good;
  }
  size_t agreed = 0;
  while (agreed < size && first[size - 1 - agreed] == second[size - 1 - agreed]) ++agreed;
  m_agreed = agreed == size ? m_agreed + agreed : agreed;
  m_sure = m_agreed > kMaxHistory;
}

void DamagedReader::LoseHistory() {
  m_sure = false;
  m_agreed = 0;
  m_decoders[0].Pretend(0x00);
  m_decoders[1].Pretend(0xFF);
}

// Hands out the part of `bytes` that was asked for.
void DamagedReader::Keep(std::span<const unsigned char> bytes, uint64_t offset, bool isPlaced) {
  if (!isPlaced) {
    const bool isWhole = m_begin == 0 && m_end == m_source.size;
    if (isWhole) m_take({FilePiece::Kind::Unplaced, m_file, bytes.size(), bytes, {}});
    return;
  }
  EndLoss();
  const uint64_t begin = std::max(offset, std::max(m_begin, m_file));
  const uint64_t end = std::min(offset + bytes.size(), m_end);
  if (begin < end) {
    const auto part =
        bytes.subspan(static_cast<size_t>(begin - offset), static_cast<size_t>(end - begin));
    m_take({FilePiece::Kind::Data, begin, part.size(), part, {}});
  }
  m_file = std::max(m_file, offset + bytes.size());
}

// Everything up to `end` is lost. Parts that follow each other are told as one.
void DamagedReader::Lose(uint64_t end, const std::string& reason) {
  if (end <= m_file) return;
  if (!m_lost) {
    m_lost = true;
    m_lostFrom = m_file;
    m_loss = reason;
  }
  m_file = end;
}

void DamagedReader::EndLoss() {
  if (!m_lost) return;
  m_lost = false;
  const uint64_t begin = std::max(m_lostFrom, m_begin);
  const uint64_t end = std::min(m_file, m_end);
  m_anyLost = m_anyLost || m_lostFrom < std::min(m_file, m_source.size);
  if (begin < end) m_take({FilePiece::Kind::Lost, begin, end - begin, {}, m_loss});
}

}  // namespace capsule::host
