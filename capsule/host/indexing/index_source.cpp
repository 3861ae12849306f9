// Sound sections are stepped through by the scanner, damaged ones by a survey. Unless the sections
// have just been written, each item is judged twice: by reading its data as a reader would, and by
// the problems that a map of the image has in its bytes.
#include "capsule/host/indexing/index_source.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index/image_header.h"
#include "capsule/host/map/image_mapper.h"
#include "capsule/host/records/ntfs_entry.h"
#include "capsule/host/records/record_stream.h"
#include "capsule/host/sections/searching_survey.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

constexpr char kUnsure[] = "; the folders of what follows are not sure, so no index can be made";

// Judges items by their own records.
class ItemJudge {
 public:
  ItemJudge(const ImageFile& image, const DecodedHeader& header) {
    m_source.image = image;
    m_source.rules.imageIsCompressed = header.compressed;
    const auto take = [this](const MapItem& item) {
      if (!item.problem.empty()) m_problems.emplace_back(item.offset, item.problem);
    };
    MapImage(image, nullptr, take, false);
    std::stable_sort(m_problems.begin(), m_problems.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
  }

  // What is wrong with its records, to be asked in the order of the items, or nothing.
  std::string Judge(const SectionItem& item) {
    while (m_problem < m_problems.size() && m_problems[m_problem].first < item.offset) {
      ++m_problem;
    }
    std::string wrong = JudgeData(item);
    const bool isHit =
        m_problem < m_problems.size() && m_problems[m_problem].first < item.offset + item.length;
    return wrong.empty() && isHit ? m_problems[m_problem].second : wrong;
  }

 private:
  std::string JudgeData(const SectionItem& item) {
    if (item.kind != Kind::File || IsLeftOut(item)) return {};
    m_source.begin = item.dataOffset;
    m_source.limit = item.offset + item.length;
    m_source.size = item.entry.FileSize;
    m_source.rules.kind = item.Records();
    m_source.fileRecord = item.offset;
    return ProblemOf(m_source);
  }

  static bool IsLeftOut(const SectionItem& item) {
    return item.isNtfs && IsNtfsOwnFile(item.name, item.depth == 0) &&
           item.dataOffset == item.offset + item.length;
  }

  RecordSource m_source;
  std::vector<std::pair<uint64_t, std::string>> m_problems;  // by offset
  size_t m_problem = 0;                                      // the next
};

uint64_t VisitSoundItems(const ImageFile& image, bool readsData, const ItemVisitor& visitor) {
  SectionScanner scanner(image);
  std::optional<ItemJudge> judge;
  if (readsData) judge.emplace(image, scanner.Header());
  for (SectionItem item; scanner.Next(&item);) {
    if (!item.problem.empty())
      throw Error(image.Name(), item.path + ": " + item.problem, item.offset);
    visitor.onItem(item, judge ? judge->Judge(item) : "");
  }
  return scanner.Position();
}

// Goes over the sections of a damaged image for VisitItems.
class LeftVisit {
 public:
  LeftVisit(const ImageFile& image, const ItemVisitor& visitor)
      : m_image(image),
        m_length(image.Size()),
        m_header(ReadImageHeader(image)),
        m_judge(image, m_header),
        m_first(m_length),
        m_visitor(visitor) {}

  uint64_t Run() {
    SurveyVisitor survey;
    survey.onItem = [this](const SurveyItem& found) { Take(found); };
    survey.onDamage = [this](uint64_t offset, const std::string& reason) { Note(offset, reason); };
    survey.onFileDamage = [](uint64_t, const std::string&) {};  // comes with the file
    survey.onStray = [this](uint64_t offset) { Note(offset, "its folder is lost"); };
    const uint64_t limit = LimitOfSections(m_image, m_header, {}, m_length);
    SurveyBySearch(m_image, {limit}, survey);
    if (m_first < m_end) throw Error(m_image.Name(), m_firstReason + kUnsure, m_first);
    if (m_last != Kind::Trailer && m_last != Kind::NtfsEnd) {
      m_visitor.onImage({0, kHeaderSize, "the end is missing: " + EndText(), true});
    } else if (m_first < m_length) {
      m_visitor.onImage({0, kHeaderSize, m_firstReason, false});
    }
    return m_length;
  }

 private:
  void Take(const SurveyItem& found) {
    const SectionItem& item = found.item;
    m_end = item.offset + item.length;
    m_last = item.kind;
    if (found.isPlaceholder) Note(item.offset, "its folder is lost");
    std::string damage = found.damage.empty() ? m_judge.Judge(item) : found.damage;
    if (damage.empty() && !item.nameProblem.empty()) damage = "long name: " + item.nameProblem;
    m_visitor.onItem(item, damage);
  }

  // Notes damage to something else than the data of a file.
  void Note(uint64_t offset, const std::string& reason) {
    if (offset < m_first || m_firstReason.empty()) {
      m_firstReason = "item at " + Hex(offset) + ": " + reason;
    }
    m_first = std::min(m_first, offset);
  }

  std::string EndText() const {
    const std::string has = "the file has " + std::to_string(m_length) + " bytes";
    if (m_header.indexOffset <= m_length) return has + " and the last section no end";
    return has + ", its index began at " + std::to_string(m_header.indexOffset) +
           "; what lay behind is lost";
  }

  ImageFile m_image;
  uint64_t m_length;
  DecodedHeader m_header;
  ItemJudge m_judge;
  uint64_t m_end = 0;  // of the last item
  Kind m_last = Kind::Section;
  uint64_t m_first;  // damage that is not to the data of a file
  std::string m_firstReason;
  const ItemVisitor& m_visitor;
};

}  // namespace

bool HasReadableIndex(const ImageFile& image) {
  const DecodedHeader header = ReadImageHeader(image);
  try {
    RequireIndexInFile(header, image);
    return !ReadIndex(image, header.indexOffset).items.empty();
  } catch (const Error&) {
    return false;
  }
}

uint64_t VisitItems(const ImageFile& image, SectionTrust trust, const ItemVisitor& visitor) {
  if (trust == SectionTrust::Damaged) return LeftVisit(image, visitor).Run();
  return VisitSoundItems(image, trust == SectionTrust::Sound, visitor);
}

}  // namespace capsule::host
