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

constexpr size_t kWindowSize = size_t{256} * 1024;  // holds three of the longest records
constexpr size_t kMaxRuns = 65536;
constexpr uint64_t kMaxWorkFactor = 16;  // chunks are judged twice, and have 30 times a payload

class Survey {
 public:
  explicit Survey(const RecordSource& source)
      : m_source(source),
        m_window(source.image, kWindowSize),
        m_end(std::min(source.limit, source.image.Size())),
        m_headerSize(source.rules.HeaderSize()) {
    const uint64_t room = m_end - std::min(m_end, source.begin);
    m_workLeft = kMaxWorkFactor * room + kWindowSize;
  }

  std::vector<RecordRun> Run() {
    for (uint64_t at = m_source.begin; at < m_end;) {
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
    return std::move(m_runs);
  }

 private:
  // The record whose header is at `at` and which ends within the room.
  std::optional<DataRecord> RecordAt(uint64_t at) {
    if (at >= m_end) return std::nullopt;
    const auto bytes =
        m_window.At(at, static_cast<size_t>(std::min<uint64_t>(m_end - at, m_headerSize)));
    const auto record = DecodeDataRecord(bytes, m_source.rules);
    if (record && record->Size() > m_end - at) return std::nullopt;
    return record;
  }

  // In NTFS sections further FILE records of the file lie between its data.
  uint64_t SkipFileRecords(uint64_t at) {
    return m_source.rules.IsNtfs() ? SkipNtfsCompanions(m_window, at, m_end) : at;
  }

  bool Decodes(uint64_t at, const DataRecord& record) {
    const uint64_t work = record.Size() + record.chunk;
    if (work > m_workLeft) return false;
    m_workLeft -= work;
    return IsWholeDataRecord(m_window.At(at, record.Size()), m_source.rules);
  }

  // A stored record right behind one of the same size needs no more proof.
  bool IsOfFile(const DataRecord& record) const {
    return !record.isCompressed && !m_runs.empty() && !m_runs.back().isDamage &&
           m_runs.back().chunk == record.chunk;
  }

  // A stored record is one when a record follows, or nothing.
  bool IsWhole(uint64_t at, const DataRecord& record) {
    if (record.isCompressed) return Decodes(at, record);
    const uint64_t next = SkipFileRecords(at + record.Size());
    return next >= m_end || RecordAt(next).has_value() || record.IsLast();
  }

  bool IsWholeAt(uint64_t at) {
    at = SkipFileRecords(at);
    const auto record = RecordAt(at);
    return record && IsWhole(at, *record);
  }

  void AddRecord(uint64_t at, const DataRecord& record) {
    const bool goesOn = !m_runs.empty() && !m_runs.back().isDamage &&
                        m_runs.back().chunk == record.chunk && !m_runs.back().isLast;
    if (!goesOn) {
      m_runs.push_back(RecordRun{.begin = at, .end = at, .chunk = record.chunk});
    }
    RecordRun& run = m_runs.back();
    run.end = at + record.Size();
    run.isLast = record.IsLast();
    ++run.records;
  }

  // Takes what is damaged from `at` on; where it ends.
  uint64_t AddDamage(uint64_t at) {
    RecordRun damage{.begin = at, .end = at, .isDamage = true};
    if (!FollowHeaders(&damage)) {
      damage = RecordRun{.begin = at, .end = at, .isDamage = true};
      damage.end = m_runs.size() < kMaxRuns ? EndOfDamage(at) : m_end;
    }
    m_runs.push_back(damage);
    return damage.end;
  }

  // Whether records of one size, whose headers are sound, lead from the damage to a whole record or
  // to the end.
  bool FollowHeaders(RecordRun* damage) {
    uint64_t at = damage->begin;
    while (const auto record = RecordAt(at)) {
      if (m_workLeft < m_headerSize) return false;
      m_workLeft -= m_headerSize;
      if (damage->chunk != 0 && damage->chunk != record->chunk) return false;
      damage->chunk = record->chunk;
      ++damage->records;
      damage->isLast = record->IsLast();
      at = SkipFileRecords(at + record->Size());
      damage->end = at;
      if (at >= m_end || IsWholeAt(at)) return true;
    }
    return false;
  }

  // Where a record of the size that the header states would end, or a stored one like those before,
  // if there is a record or the end; else the next record that is found.
  uint64_t EndOfDamage(uint64_t at) {
    const uint64_t chunk = m_runs.empty() ? 0 : m_runs.back().chunk;
    for (const uint64_t end : {EndByLength(at), at + m_headerSize + chunk}) {
      if (end > at + m_headerSize && (end == m_end || IsWholeAt(end))) return end;
    }
    while (++at < m_end) {
      const auto bytes = m_window.At(at, kWindowSize / 2);
      if (bytes.size() < m_headerSize) break;
      const size_t last = bytes.size() - m_headerSize;
      size_t i = 0;
      while (i < last && !IsHeader(bytes.subspan(i, m_headerSize))) ++i;
      at += i;
      if (IsWholeAt(at)) return at;
    }
    return m_end;
  }

  bool IsHeader(std::span<const unsigned char> bytes) const {
    return DecodeDataRecord(bytes, m_source.rules).has_value();
  }

  // 0 when there is no header.
  uint64_t EndByLength(uint64_t at) {
    const auto bytes = m_window.At(at, m_headerSize);
    if (bytes.size() < m_headerSize) return 0;
    const uint32_t length = m_source.rules.IsNtfs()
                                ? DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>()).Length
                                : DecodeMiniHeader(bytes.first<kMiniHeaderSize>()).Length;
    return at + m_headerSize + length;
  }

  // What follows the last record of the file is not the file's.
  void DropTail() {
    const size_t count = m_runs.size();
    if (count < 2 || !m_runs[count - 1].isDamage || m_runs[count - 1].records != 0) return;
    if (!m_runs[count - 2].isDamage && m_runs[count - 2].isLast) m_runs.pop_back();
  }

  const RecordSource& m_source;
  FileWindow m_window;
  uint64_t m_end;
  uint32_t m_headerSize;
  uint64_t m_workLeft = 0;
  std::vector<RecordRun> m_runs;
};

}  // namespace

std::vector<RecordRun> SurveyRecords(const RecordSource& source) { return Survey(source).Run(); }

}  // namespace capsule::host
