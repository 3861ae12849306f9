#include "capsule/host/index_source.h"

#include <algorithm>

#include "capsule/host/error.h"
#include "capsule/host/image_open.h"
#include "capsule/host/reason.h"
#include "capsule/host/section_survey.h"
#include "capsule/platform/file.h"

namespace capsule::host {
namespace {

constexpr char kUnsure[] = "; the folders of what follows are not sure, so no index can be made";

uint64_t VisitSoundItems(int descriptor, const std::string& path, const TakeItem& take) {
  SectionScanner scanner(descriptor, path);
  for (SectionItem item; scanner.Next(&item);) {
    if (!item.problem.empty()) throw Error(path, item.path + ": " + item.problem, item.offset);
    take(item, false);
  }
  return scanner.Position();
}

uint64_t VisitItemsLeft(int descriptor, const std::string& path, const TakeItem& take,
                        std::vector<ImageProblem>* problems) {
  const auto length = static_cast<uint64_t>(std::max<int64_t>(platform::FileLength(descriptor), 0));
  const DecodedHeader header = ReadImageHeader(descriptor, path, length);
  uint64_t end = 0;
  uint64_t first = length;  // damage that is not to the data of a file
  std::string what;
  SurveyVisitor visitor;
  visitor.onItem = [&](const SurveyItem& found) {
    const SectionItem& item = found.item;
    end = item.offset + item.length;
    if (found.isPlaceholder) visitor.onDamage(item.offset, "its folder is lost");
    take(item, !found.damage.empty());
    if (found.damage.empty()) return;
    problems->push_back({std::to_string(item.section) + ":/" + item.path, found.damage});
  };
  visitor.onDamage = [&](uint64_t offset, const std::string& reason) {
    if (offset < first) what = "item at " + Hex(offset) + ": " + reason;
    first = std::min(first, offset);
    problems->push_back({"item at " + Hex(offset), reason});
  };
  visitor.onFileDamage = [](uint64_t, const std::string&) {};
  visitor.onStray = [&](uint64_t offset) { visitor.onDamage(offset, "its folder is lost"); };
  SurveyBySearch(descriptor, path, {LimitOfSections(descriptor, path, header, {}, length)},
                 visitor);
  if (first < end) throw Error(path, what + kUnsure, first);
  return length;
}

}  // namespace

void RefuseToReplaceIndex(int descriptor, const std::string& path, const Error& damage) {
  const auto length = static_cast<uint64_t>(std::max<int64_t>(platform::FileLength(descriptor), 0));
  const DecodedHeader header = ReadImageHeader(descriptor, path, length);
  try {
    CheckIndexOffset(header, path, length);
    if (CheckIndex(descriptor, path, header.indexOffset, length).items.empty()) return;
  } catch (const Error&) {
    return;
  }
  throw Error(path, damage.Reason() + "; the index can be read, and is kept for what it tells");
}

uint64_t VisitItems(int descriptor, const std::string& path, bool isDamaged, const TakeItem& take,
                    std::vector<ImageProblem>* problems) {
  return isDamaged ? VisitItemsLeft(descriptor, path, take, problems)
                   : VisitSoundItems(descriptor, path, take);
}

}  // namespace capsule::host
