#include "capsule/host/concealed_section.h"

#include <algorithm>

#include "capsule/host/error.h"
#include "capsule/host/reason.h"
#include "capsule/host/section_resync.h"
#include "capsule/host/section_scanner.h"

namespace capsule::host {
namespace {

// Whether the header counts no sections, or more than it has records of, has records that it does
// not count, or is of a kind in which a damaged count cannot be told from a true one.
bool IsHeaderUnsure(const SectionScanner& scanner) {
  const size_t count = scanner.SectionCount();
  if (count == 0 || scanner.Header().partitions.size() != count) return true;
  if (scanner.Header().layout != HeaderLayout::Fixed || scanner.IsScrambled()) return true;
  const auto rest = scanner.RawHeader()
                        .subspan(kPartitionRecordsOffset, kPartitionRecordSize * kMaxPartitions)
                        .subspan(kPartitionRecordSize * count);
  return std::any_of(rest.begin(), rest.end(), [](unsigned char b) { return b != 0; });
}

std::string ConcealedBy(const SectionScanner& scanner, FileWindow& window, uint64_t end) {
  uint64_t work = 0;
  const ResyncRange range{.limit = end + kPartitionHeaderSize, .work = &work};
  const auto next = FindResumePoint(window, end, range);
  if (!next || !next->startsSection || next->offset != end) return {};
  return "section at " + Hex(end) + " is not one of the " + std::to_string(scanner.SectionCount()) +
         " that the header tells of";
}

}  // namespace

std::string ConcealedSection(int descriptor, const std::string& name, uint64_t end) {
  const SectionScanner scanner(descriptor, name);
  FileWindow window(descriptor, name);
  return IsHeaderUnsure(scanner) ? ConcealedBy(scanner, window, end) : "";
}

std::string ConcealedSection(int descriptor, const std::string& name) {
  SectionScanner scanner(descriptor, name);
  if (!IsHeaderUnsure(scanner)) return {};
  try {
    for (SectionItem item; scanner.Next(&item);) continue;
  } catch (const Error&) {
    return {};
  }
  FileWindow window(descriptor, name);
  return ConcealedBy(scanner, window, scanner.Position());
}

}  // namespace capsule::host
