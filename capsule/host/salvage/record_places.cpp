// All records of a file but its last stand for the same number of bytes. That tells how many are
// missing, and so where those behind the damage belong.
#include <algorithm>
#include <map>
#include <optional>

#include "capsule/blocks/data_record.h"
#include "capsule/host/records/unit_decoder.h"
#include "capsule/host/salvage/record_survey.h"

namespace capsule::host {
namespace {

class Places {
 public:
  Places(const RecordSource& source, std::vector<RecordRun>& runs)
      : m_runs(runs), m_size(source.size), m_ntfs(source.rules.IsNtfs()), m_goesOn(source.goesOn) {}

  void Place() {
    if (m_runs.empty() || Fits()) {
      PlaceForward(0, m_runs.size(), 0);
      return;
    }
    m_chunk = UsualChunk(m_runs);
    for (size_t i = 0; i < m_runs.size(); ++i) Doubt(i);
    std::vector<size_t> gaps = Gaps();
    if (gaps.empty()) {
      // Records are missing, or too many, and none is damaged: unless the headers of some are not
      // what they were, those in front are right.
      for (RecordRun& run : m_runs) {
        if (run.isDamage) run.chunk = 0;
      }
      gaps = Gaps();
    }
    const size_t first = gaps.empty() ? m_runs.size() : gaps.front();
    const uint64_t front = PlaceForward(0, first, 0);
    if (gaps.empty()) return;
    const std::optional<uint64_t> back = EndOfGaps(gaps.back());
    if (!back || *back < front) return;
    if (gaps.size() == 1 && !CanHold(gaps[0], *back - front)) return;
    PlaceForward(gaps.back() + 1, m_runs.size(), *back);
    if (gaps.size() > 1) PlaceBetween(gaps, front, *back);
  }

 private:
  static bool IsGap(const RecordRun& run) { return run.chunk == 0; }

  // Whether all that is known leads exactly to the end of the file.
  bool Fits() const {
    uint64_t total = 0;
    for (const RecordRun& run : m_runs) {
      if (IsGap(run)) return false;
      total += run.Length();
    }
    return m_ntfs ? total >= m_size && total - m_runs.back().chunk < m_size : total == Padded();
  }

  uint64_t Padded() const {
    return (m_size + kChunkAlignment - 1) / kChunkAlignment * kChunkAlignment;
  }

  // Records of another size are not where they seem to be, but for the last.
  void Doubt(size_t i) {
    RecordRun& run = m_runs[i];
    const bool isLast = i + 1 == m_runs.size() && run.records == 1 && run.isLast;
    if (run.chunk != m_chunk && !isLast) run.chunk = 0;
    if (run.chunk == 0) run.isDamage = true;
  }

  std::vector<size_t> Gaps() const {
    std::vector<size_t> gaps;
    for (size_t i = 0; i < m_runs.size(); ++i) {
      if (IsGap(m_runs[i])) gaps.push_back(i);
    }
    return gaps;
  }

  // Gives the runs from `i` up to `end` their places; where the last of them ends in the file.
  uint64_t PlaceForward(size_t i, size_t end, uint64_t offset) {
    for (; i < end; ++i) {
      m_runs[i].isPlaced = !m_runs[i].isDamage;
      m_runs[i].offset = offset;
      offset += m_runs[i].Length();
    }
    return offset;
  }

  // Where the file goes on behind its last gap; none when its end is not known.
  std::optional<uint64_t> EndOfGaps(size_t gap) const {
    if (m_chunk == 0 || m_size == 0) return std::nullopt;
    if (gap + 1 == m_runs.size()) return (m_size + m_chunk - 1) / m_chunk * m_chunk;
    const RecordRun& last = m_runs.back();
    if (!last.isLast && !m_goesOn) return std::nullopt;
    uint64_t end = Padded();
    if (m_ntfs) {
      const uint64_t lastBegin = (m_size - 1) / m_chunk * m_chunk;
      if (last.chunk < m_size - lastBegin) return std::nullopt;
      end = lastBegin + last.chunk;
    }
    for (size_t i = gap + 1; i < m_runs.size(); ++i) {
      if (m_runs[i].Length() > end) return std::nullopt;
      end -= m_runs[i].Length();
    }
    return end;
  }

  // Whether whole records that stand for `length` bytes can have been where the gap is. What is
  // missing at the end of an image may have been anywhere.
  bool CanHold(size_t gap, uint64_t length) const {
    if (gap + 1 == m_runs.size() && !m_goesOn) return true;
    const uint64_t bytes = m_runs[gap].end - m_runs[gap].begin;
    return length % m_chunk == 0 && bytes >= length / kMaxExpansion && bytes <= 2 * length;
  }

  // Several gaps: the runs between them have a place when each gap is one record.
  void PlaceBetween(const std::vector<size_t>& gaps, uint64_t front, uint64_t back) {
    uint64_t held = 0;
    for (size_t i = gaps.front(); i < gaps.back(); ++i) held += m_runs[i].Length();
    if (back - front != held + gaps.size() * m_chunk) return;
    for (const size_t gap : gaps) {
      if (!CanHold(gap, m_chunk)) return;
    }
    uint64_t offset = front;
    for (size_t i = gaps.front(); i < gaps.back(); ++i) {
      m_runs[i].isPlaced = !m_runs[i].isDamage;
      m_runs[i].offset = offset;
      offset += IsGap(m_runs[i]) ? m_chunk : m_runs[i].Length();
    }
  }

  std::vector<RecordRun>& m_runs;
  uint64_t m_size;
  bool m_ntfs;
  bool m_goesOn;
  uint32_t m_chunk = 0;
};

}  // namespace

uint32_t UsualChunk(const std::vector<RecordRun>& runs) {
  std::map<uint32_t, uint64_t> count;
  for (const RecordRun& run : runs) {
    if (!run.isDamage) count[run.chunk] += run.records;
  }
  const auto most = std::max_element(count.begin(), count.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second < b.second : a.first < b.first;
  });
  return most == count.end() ? 0 : most->first;
}

void PlaceRuns(const RecordSource& source, std::vector<RecordRun>& runs) {
  Places(source, runs).Place();
}

}  // namespace capsule::host
