// A run of damage may be one record whose header alone is damaged. Its bytes are tried as a unit,
// or as a stored chunk, of the size that the whole records around it have; nothing else is guessed.
#include <algorithm>
#include <array>

#include "capsule/blocks/data_record.h"
#include "capsule/host/file/file_window.h"
#include "capsule/host/records/unit_decoder.h"
#include "capsule/host/salvage/record_survey.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

constexpr size_t kWindowSize = size_t{128} * 1024;
constexpr uint64_t kMaxPayload = 0xFFFF;

class Repair {
 public:
  Repair(const RecordSource& source, std::vector<RecordRun>& runs)
      : m_source(source),
        m_runs(runs),
        m_window(source.image, kWindowSize),
        m_headerSize(source.rules.HeaderSize()) {}

  void Run() {
    const uint32_t usual = UsualChunk(m_runs);
    for (size_t i = 0; i < m_runs.size(); ++i) {
      RecordRun& run = m_runs[i];
      const uint64_t size = run.end - run.begin;
      if (!run.isDamage || size <= m_headerSize || size > m_headerSize + kMaxPayload) continue;
      const bool isLast = i + 1 == m_runs.size() && !m_source.goesOn;
      if (usual != 0 && TryChunk(run, usual, false)) continue;
      if (isLast) TryChunk(run, LastChunk(usual), true);
    }
  }

 private:
  // What a last record would stand for.
  uint32_t LastChunk(uint32_t usual) const {
    const uint64_t size = m_source.size;
    if (usual == 0) return size > kMaxUncompressedLength ? 0 : PaddedChunkLength(Low(size));
    return size == 0 ? 0 : PaddedChunkLength(Low((size - 1) % usual + 1));
  }

  static uint32_t Low(uint64_t value) { return static_cast<uint32_t>(value); }

  bool TryChunk(RecordRun& run, uint32_t chunk, bool isLast) {
    const auto bytes = m_window.At(run.begin, static_cast<size_t>(run.end - run.begin));
    if (chunk == 0 || bytes.size() != run.end - run.begin) return false;
    const auto payload = bytes.subspan(m_headerSize);
    const bool isUnit = m_source.rules.imageIsCompressed && IsUnit(payload, chunk);
    if (!isUnit && !IsStoredChunk(bytes, chunk, isLast)) return false;
    run = RecordRun{.begin = run.begin, .end = run.end, .chunk = chunk, .records = 1};
    run.isRepaired = true;
    run.isCompressed = isUnit;
    run.isLast = isLast || (chunk == m_source.size && m_runs.size() == 1 && !m_source.goesOn);
    return true;
  }

  static bool IsUnit(std::span<const unsigned char> payload, uint32_t chunk) {
    UnitDecoder decoder;
    decoder.Pretend(0);
    std::vector<unsigned char> out(chunk);
    return decoder.Decode(payload, out).empty();
  }

  // Whether the bytes are a stored chunk. No more than one field of the header may be wrong, so
  // that other bytes do not pass for a chunk.
  bool IsStoredChunk(std::span<const unsigned char> bytes, uint32_t chunk, bool isLast) const {
    if (m_source.rules.IsNtfs() || bytes.size() != m_headerSize + uint64_t{chunk}) return false;
    const _MiniHeader header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
    const std::array<bool, 4> right = {
        header.Type == kRecordDataBlock, header.Flag == (isLast ? 1 : 0),
        header.Param == 0 || header.Param == chunk, header.Length == chunk};
    return std::count(right.begin(), right.end(), false) <= 1;
  }

  const RecordSource& m_source;
  std::vector<RecordRun>& m_runs;
  FileWindow m_window;
  uint32_t m_headerSize;
};

}  // namespace

void MendRuns(const RecordSource& source, std::vector<RecordRun>& runs) {
  Repair(source, runs).Run();
}

}  // namespace capsule::host
