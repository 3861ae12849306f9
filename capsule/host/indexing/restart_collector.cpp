// The points of a file count only if their number is the one that a file of its size has; otherwise
// some may have been left out, and the file is decoded to find them.
#include "capsule/host/indexing/restart_collector.h"

#include <algorithm>

#include "capsule/host/index/restart_point.h"
#include "capsule/host/records/unit_decoder.h"

namespace capsule::host {
namespace {

constexpr size_t kMostPoints = 4096;  // about 8 MiB

bool IsBefore(const IndexRecord& point, uint64_t offset) { return point.offset < offset; }

}  // namespace

void RestartCollector::Take(const InsertObserver::Chunk& next) {
  if (next.fileOffset == 0) m_wanted = kRestartDistance;
  if (next.fileOffset < m_wanted) return;
  m_wanted = next.fileOffset + kRestartDistance;
  if (m_points.size() == kMostPoints) return;
  const auto history =
      next.before.last(next.isCompressed ? std::min(next.before.size(), kMaxHistory) : 0);
  m_points.push_back(RestartRecord(static_cast<uint64_t>(next.record), next.fileOffset, history));
}

void RestartCollector::Forget(int64_t offset) {
  while (!m_points.empty() && m_points.back().offset >= offset) m_points.pop_back();
}

std::span<const IndexRecord> RestartCollector::Of(uint64_t begin, uint64_t limit,
                                                  uint64_t size) const {
  const auto first = std::lower_bound(m_points.begin(), m_points.end(), begin, IsBefore);
  const auto end = std::lower_bound(first, m_points.end(), limit, IsBefore);
  const auto count = static_cast<uint64_t>(end - first);
  if (size == 0 || count != (size - 1) / kRestartDistance) return {};
  return {first, end};
}

}  // namespace capsule::host
