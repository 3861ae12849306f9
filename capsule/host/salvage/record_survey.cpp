// Records are followed by their headers; behind damage the next one is searched for. All decoding
// and searching is paid for from a budget that grows with the room, so that bytes made to look like
// headers cannot make the survey slow.
#include "capsule/host/salvage/record_survey.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "capsule/host/file/file_window.h"
#include "capsule/host/records/ntfs_entry.h"
#include "capsule/host/records/record_judge.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr size_t kWindowSize = 256 * 1024;  // holds three of the longest records
constexpr size_t kMaxRuns = 65536;
constexpr uint64_t kMaxWorkFactor = 16;  // chunks are judged twice, and have 30 times a payload

class Survey {
 public:
  explicit Survey(const RecordSource& source)
      : m_Source(source),
        m_Window(source.image, kWindowSize),
        m_nEnd(std::min(source.limit, source.image.Size())),
        m_nHeaderSize(source.rules.HeaderSize()) {
    const uint64_t room = m_nEnd - std::min(m_nEnd, source.begin);
    m_nWorkLeft = kMaxWorkFactor * room + kWindowSize;
  }

  std::vector<RecordRun> Run() {
    for (uint64_t at = m_Source.begin; at < m_nEnd;) {
      at = SkipFileRecords(at);
      const auto record = RecordAt(at);
      if (record && (IsOfFile(*record) || IsWhole(at, *record))) {
        AddRecord(at, *record);
        at += record->Size();
      } else {
        at = AddDamage(at);
      }
    }
    DropTail();
    return std::move(m_Runs);
  }

 private:
  // The record whose header is at `at` and which ends within the room.
  std::optional<DataRecord> RecordAt(uint64_t at) {
    if (at >= m_nEnd) return std::nullopt;
    const auto bytes =
        m_Window.At(at, static_cast<size_t>(std::min<uint64_t>(m_nEnd - at, m_nHeaderSize)));
    const auto record = DecodeDataRecord(bytes, m_Source.rules);
    if (record && record->Size() > m_nEnd - at) return std::nullopt;
    return record;
  }

  // In NTFS sections further FILE records of the file lie between its data.
  uint64_t SkipFileRecords(uint64_t at) {
    return m_Source.rules.IsNtfs() ? SkipNtfsCompanions(m_Window, at, m_nEnd) : at;
  }

  bool Decodes(uint64_t at, const DataRecord& record) {
    const uint64_t work = record.Size() + record.chunk;
    if (work > m_nWorkLeft) return false;
    m_nWorkLeft -= work;
    return IsWholeDataRecord(m_Window.At(at, record.Size()), m_Source.rules);
  }

  // A stored record right behind one of the same size needs no more proof.
  bool IsOfFile(const DataRecord& record) const {
    return !record.isCompressed && !m_Runs.empty() && !m_Runs.back().isDamage &&
           m_Runs.back().chunk == record.chunk;
  }

  // A stored record is one when a record follows, or nothing.
  bool IsWhole(uint64_t at, const DataRecord& record) {
    if (record.isCompressed) return Decodes(at, record);
    const uint64_t next = SkipFileRecords(at + record.Size());
    return next >= m_nEnd || RecordAt(next).has_value() || record.IsLast();
  }

  bool IsWholeAt(uint64_t at) {
    at = SkipFileRecords(at);
    const auto record = RecordAt(at);
    return record && IsWhole(at, *record);
  }

  void AddRecord(uint64_t at, const DataRecord& record) {
    const bool goesOn = !m_Runs.empty() && !m_Runs.back().isDamage &&
                        m_Runs.back().chunk == record.chunk && !m_Runs.back().isLast;
    if (!goesOn) {
      m_Runs.push_back(RecordRun{.begin = at, .end = at, .chunk = record.chunk});
    }
    RecordRun& run = m_Runs.back();
    run.end = at + record.Size();
    run.isLast = record.IsLast();
    ++run.records;
  }

  // Takes what is damaged from `at` on; where it ends.
  uint64_t AddDamage(uint64_t at) {
    RecordRun damage{.begin = at, .end = at, .isDamage = true};
    if (!FollowHeaders(&damage)) {
      damage = RecordRun{.begin = at, .end = at, .isDamage = true};
      damage.end = m_Runs.size() < kMaxRuns ? EndOfDamage(at) : m_nEnd;
    }
    m_Runs.push_back(damage);
    return damage.end;
  }

  // Whether records of one size, whose headers are sound, lead from the damage to a whole record or
  // to the end.
  bool FollowHeaders(RecordRun* damage) {
    uint64_t at = damage->begin;
    while (const auto record = RecordAt(at)) {
      if (m_nWorkLeft < m_nHeaderSize) return false;
      m_nWorkLeft -= m_nHeaderSize;
      if (damage->chunk != 0 && damage->chunk != record->chunk) return false;
      damage->chunk = record->chunk;
      ++damage->records;
      damage->isLast = record->IsLast();
      at = SkipFileRecords(at + record->Size());
      damage->end = at;
      if (at >= m_nEnd || IsWholeAt(at)) return true;
    }
    return false;
  }

  // Where a record of the size that the header states would end, or a stored one like those before,
  // if there is a record or the end; else the next record that is found.
  uint64_t EndOfDamage(uint64_t at) {
    const uint64_t chunk = m_Runs.empty() ? 0 : m_Runs.back().chunk;
    for (const uint64_t end : {EndByLength(at), at + m_nHeaderSize + chunk}) {
      if (end > at + m_nHeaderSize && (end == m_nEnd || IsWholeAt(end))) return end;
    }
    while (++at < m_nEnd) {
      const auto bytes = m_Window.At(at, kWindowSize / 2);
      if (bytes.size() < m_nHeaderSize) break;
      const size_t last = bytes.size() - m_nHeaderSize;
      size_t i = 0;
      while (i < last && !IsHeader(bytes.subspan(i, m_nHeaderSize))) ++i;
      at += i;
      if (IsWholeAt(at)) return at;
    }
    return m_nEnd;
  }

  bool IsHeader(std::span<const unsigned char> bytes) const {
    return DecodeDataRecord(bytes, m_Source.rules).has_value();
  }

  // 0 when there is no header.
  uint64_t EndByLength(uint64_t at) {
    const auto bytes = m_Window.At(at, m_nHeaderSize);
    if (bytes.size() < m_nHeaderSize) return 0;
    const uint32_t length = m_Source.rules.IsNtfs()
                                ? DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>()).Length
                                : DecodeMiniHeader(bytes.first<kMiniHeaderSize>()).Length;
    return at + m_nHeaderSize + length;
  }

  // What follows the last record of the file is not the file's.
  void DropTail() {
    const size_t count = m_Runs.size();
    if (count < 2 || !m_Runs[count - 1].isDamage || m_Runs[count - 1].records != 0) return;
    if (!m_Runs[count - 2].isDamage && m_Runs[count - 2].isLast) m_Runs.pop_back();
  }

  const RecordSource& m_Source;
  FileWindow m_Window;
  uint64_t m_nEnd;
  uint32_t m_nHeaderSize;
  uint64_t m_nWorkLeft = 0;
  std::vector<RecordRun> m_Runs;
};

}  // namespace

std::vector<RecordRun> SurveyRecords(const RecordSource& source) { return Survey(source).Run(); }

}  // namespace capsule::host
