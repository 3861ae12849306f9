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

constexpr size_t kWindowSize = 256 * 1024;
constexpr uint64_t kReach = 2048;  // a unit reaches back no further

// Fewer good bytes than this between lost ones are not worth a range of their own.
constexpr size_t kLeastRun = 4;

constexpr char kBehindLoss[] = "hangs on lost bytes";

}  // namespace

DamagedReader::DamagedReader(RecordSource source, std::string problem, uint64_t begin, uint64_t end,
                             const TakePiece& take)
    : m_Source(std::move(source)),
      m_strProblem(std::move(problem)),
      m_nBegin(begin),
      m_nEnd(std::min(end, m_Source.size)),
      m_Take(take),
      m_Window(m_Source.image, kWindowSize) {}

void DamagedReader::Run() {
  RecordSource part = m_Source;
  for (const RestartPoint& point : m_Source.restarts) {
    const bool isAhead = point.record > part.begin && point.record < m_Source.limit &&
                         point.fileOffset > m_nPart && point.fileOffset < m_Source.size;
    if (!isAhead) continue;
    part.limit = point.record;
    part.size = point.fileOffset - m_nPart;
    part.goesOn = true;
    ReadPart(part);
    part.begin = point.record;
    m_nPart = point.fileOffset;
    TakeHistory(point);
  }
  part.limit = m_Source.limit;
  part.size = m_Source.size - m_nPart;
  part.goesOn = false;
  ReadPart(part);
  EndLoss();
  if (m_bAnyLost && !m_Source.check) return;
  m_Take({FilePiece::Kind::Uncertain,
          m_nBegin,
          m_nEnd - m_nBegin,
          {},
          m_bAnyLost ? "the check value is for the whole file" : m_strProblem});
}

void DamagedReader::TakeHistory(const RestartPoint& point) {
  const auto history = m_Window.At(point.history, point.historyLength);
  if (history.size() < point.historyLength) return LoseHistory();
  m_Decoders[0].Restore(history);
  m_bSure = true;
}

void DamagedReader::ReadPart(const RecordSource& part) {
  std::vector<RecordRun> runs = SurveyRecords(part);
  RepairRuns(part, runs);
  PlaceRuns(part, runs);
  std::string reason;
  for (const RecordRun& run : runs) {
    if (run.isDamage) {
      reason = "no whole data records at " + Hex(run.begin) + " to " + Hex(run.end);
      LoseHistory();
      continue;
    }
    if (run.isPlaced) Lose(m_nPart + run.offset, reason);
    ReadRun(run);
    if (!run.isPlaced) reason = "records at " + Hex(run.begin) + " cannot be placed";
  }
  Lose(m_nPart + part.size, reason.empty() ? "records end at " + Hex(part.limit) : reason);
}

void DamagedReader::ReadRun(const RecordRun& run) {
  uint64_t at = run.begin;
  if (run.isRepaired) {
    const uint32_t headerSize = m_Source.rules.HeaderSize();
    const auto payload = static_cast<uint32_t>(run.end - run.begin) - headerSize;
    const DataRecord record{headerSize, payload, run.chunk, run.isCompressed,
                            run.isLast ? uint8_t{1} : uint8_t{0}};
    const auto bytes = m_Window.At(at, record.Size());
    if (bytes.size() < record.Size()) return;
    return ReadRecord(record, bytes.subspan(headerSize), run, m_nPart + run.offset);
  }
  for (uint64_t i = 0; i < run.records; ++i) {
    if (m_Source.rules.IsNtfs()) at = SkipNtfsCompanions(m_Window, at, run.end);
    const auto header = m_Window.At(at, m_Source.rules.HeaderSize());
    const auto record = DecodeDataRecord(header, m_Source.rules);
    if (!record) return;
    const auto bytes = m_Window.At(at, record->Size());
    if (bytes.size() < record->Size()) return;
    ReadRecord(*record, bytes.subspan(record->headerSize), run,
               m_nPart + run.offset + i * run.chunk);
    at += record->Size();
  }
}

void DamagedReader::ReadRecord(const DataRecord& record, std::span<const unsigned char> payload,
                               const RecordRun& run, uint64_t offset) {
  if (!record.isCompressed) return Keep(payload, offset, run.isPlaced);
  bool isGood = true;
  for (size_t i = 0; i < (m_bSure ? 1 : 2); ++i) {
    m_Chunks[i].resize(record.chunk);
    isGood = m_Decoders[i].Decode(payload, m_Chunks[i]).empty() && isGood;
  }
  if (isGood) return TakeCompressed(offset, run.isPlaced);
  // Whole by itself, but not with the history it has: it refers back before the file's first byte.
  LoseHistory();
  if (run.isPlaced) Lose(offset + record.chunk, "refers back before the start of the file");
}

void DamagedReader::TakeCompressed(uint64_t offset, bool isPlaced) {
  const auto& first = m_Chunks[0];
  const auto& second = m_Chunks[1];
  if (m_bSure) return Keep(first, offset, isPlaced);
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
  m_nAgreed = agreed == size ? m_nAgreed + agreed : agreed;
  m_bSure = m_nAgreed >= kReach;
}

void DamagedReader::LoseHistory() {
  m_bSure = false;
  m_nAgreed = 0;
  m_Decoders[0].Pretend(0x00);
  m_Decoders[1].Pretend(0xFF);
}

// Hands out the part of `bytes` that was asked for.
void DamagedReader::Keep(std::span<const unsigned char> bytes, uint64_t offset, bool isPlaced) {
  if (!isPlaced) {
    const bool isWhole = m_nBegin == 0 && m_nEnd == m_Source.size;
    if (isWhole) m_Take({FilePiece::Kind::Unplaced, m_nFile, bytes.size(), bytes, {}});
    return;
  }
  EndLoss();
  const uint64_t begin = std::max(offset, std::max(m_nBegin, m_nFile));
  const uint64_t end = std::min(offset + bytes.size(), m_nEnd);
  if (begin < end) {
    const auto part =
        bytes.subspan(static_cast<size_t>(begin - offset), static_cast<size_t>(end - begin));
    m_Take({FilePiece::Kind::Data, begin, part.size(), part, {}});
  }
  m_nFile = std::max(m_nFile, offset + bytes.size());
}

// Everything up to `end` is lost. Parts that follow each other are told as one.
void DamagedReader::Lose(uint64_t end, const std::string& reason) {
  if (end <= m_nFile) return;
  if (!m_bLost) {
    m_bLost = true;
    m_nLostFrom = m_nFile;
    m_strLoss = reason;
  }
  m_nFile = end;
}

void DamagedReader::EndLoss() {
  if (!m_bLost) return;
  m_bLost = false;
  const uint64_t begin = std::max(m_nLostFrom, m_nBegin);
  const uint64_t end = std::min(m_nFile, m_nEnd);
  m_bAnyLost = m_bAnyLost || m_nLostFrom < std::min(m_nFile, m_Source.size);
  if (begin < end) m_Take({FilePiece::Kind::Lost, begin, end - begin, {}, m_strLoss});
}

}  // namespace capsule::host
