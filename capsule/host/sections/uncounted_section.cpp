// A section behind the last one is looked for only when the header gives reason to doubt its count;
// otherwise what lies there may be the rest of an older, longer file.
#include "capsule/host/sections/uncounted_section.h"

#include "capsule/host/error.h"
#include "capsule/host/sections/section_resync.h"

namespace capsule::host {
namespace {

// Whether the header counts no sections, or more than it has records of, has records that it does
// not count, or is of a kind in which a damaged count cannot be told from a true one.
bool IsHeaderUnsure(const SectionScanner& scanner) {
  const size_t count = scanner.SectionCount();
  if (count == 0 || scanner.Header().partitions.size() != count) return true;
  if (scanner.Header().layout != HeaderLayout::Fixed || scanner.IsScrambled()) return true;
  return !JudgeSpareRecords(scanner.RawHeader(), scanner.Header()).empty();
}

}  // namespace

std::optional<uint64_t> FindUncountedSection(const ImageFile& image, const SectionScanner& scanner,
                                             uint64_t end) {
  if (!IsHeaderUnsure(scanner)) return std::nullopt;
  FileWindow window(image);
  uint64_t work = 0;
  const ResyncRange range{.limit = end + kPartitionHeaderSize, .work = &work};
  const auto next = FindResumePoint(window, end, range);
  if (!next || !next->startsSection || next->offset != end) return std::nullopt;
  return end;
}

std::optional<uint64_t> FindUncountedSection(const ImageFile& image) {
  SectionScanner scanner(image);
  if (!IsHeaderUnsure(scanner)) return std::nullopt;
  try {
    for (SectionItem item; scanner.Next(&item);) continue;
  } catch (const ShortageError&) {
    throw;
  } catch (const Error&) {
    return std::nullopt;
  }
  return FindUncountedSection(image, scanner, scanner.Position());
}

std::string UncountedReason(uint32_t sectionCount) {
  return "the section here is not one of the " + std::to_string(sectionCount) +
         " that the header tells of";
}

}  // namespace capsule::host
