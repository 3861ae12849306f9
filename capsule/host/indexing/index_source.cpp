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
    m_Source.image = image;
    m_Source.rules.imageIsCompressed = header.compressed;
    const auto take = [this](const MapItem& item) {
      if (!item.problem.empty()) m_Problems.emplace_back(item.offset, item.problem);
    };
    MapImage(image, take, false);
    std::stable_sort(m_Problems.begin(), m_Problems.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
  }

  // What is wrong with its records, to be asked in the order of the items, or nothing.
  std::string Judge(const SectionItem& item) {
    while (m_nProblem < m_Problems.size() && m_Problems[m_nProblem].first < item.offset) {
      ++m_nProblem;
    }
    std::string wrong = JudgeData(item);
    const bool isHit =
        m_nProblem < m_Problems.size() && m_Problems[m_nProblem].first < item.offset + item.length;
    return wrong.empty() && isHit ? m_Problems[m_nProblem].second : wrong;
  }

 private:
  std::string JudgeData(const SectionItem& item) {
    if (item.kind != Kind::File || IsLeftOut(item)) return {};
    m_Source.begin = item.dataOffset;
    m_Source.limit = item.offset + item.length;
    m_Source.size = item.entry.FileSize;
    m_Source.rules.kind = item.Records();
    m_Source.fileRecord = item.offset;
    return ProblemOf(m_Source);
  }

  // Writers leave out what the file system keeps in files of its own.
  static bool IsLeftOut(const SectionItem& item) {
    return item.isNtfs && item.name.starts_with('$') && item.depth == 0 &&
           item.dataOffset == item.offset + item.length;
  }

  RecordSource m_Source;
  std::vector<std::pair<uint64_t, std::string>> m_Problems;  // by offset
  size_t m_nProblem = 0;                                     // the next
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
        m_nLength(image.Size()),
        m_Header(ReadImageHeader(image)),
        m_Judge(image, m_Header),
        m_nFirst(m_nLength),
        m_Visitor(visitor) {}

  uint64_t Run() {
    SurveyVisitor survey;
    survey.onItem = [this](const SurveyItem& found) { Take(found); };
    survey.onDamage = [this](uint64_t offset, const std::string& reason) { Note(offset, reason); };
    survey.onFileDamage = [](uint64_t, const std::string&) {};  // comes with the file
    survey.onStray = [this](uint64_t offset) { Note(offset, "its folder is lost"); };
    const uint64_t limit = LimitOfSections(m_image, m_Header, {}, m_nLength);
    SurveyBySearch(m_image, {limit}, survey);
    if (m_nFirst < m_nEnd) throw Error(m_image.Name(), m_strFirst + kUnsure, m_nFirst);
    if (m_Last != Kind::Trailer && m_Last != Kind::NtfsEnd) {
      m_Visitor.onImage({0, kHeaderSize, "the end is missing: " + EndText(), true});
    } else if (m_nFirst < m_nLength) {
      m_Visitor.onImage({0, kHeaderSize, m_strFirst, false});
    }
    return m_nLength;
  }

 private:
  void Take(const SurveyItem& found) {
    const SectionItem& item = found.item;
    m_nEnd = item.offset + item.length;
    m_Last = item.kind;
    if (found.isPlaceholder) Note(item.offset, "its folder is lost");
    std::string damage = found.damage.empty() ? m_Judge.Judge(item) : found.damage;
    if (damage.empty() && !item.nameProblem.empty()) damage = "long name: " + item.nameProblem;
    m_Visitor.onItem(item, damage);
  }

  // Notes damage to something else than the data of a file.
  void Note(uint64_t offset, const std::string& reason) {
    if (offset < m_nFirst || m_strFirst.empty()) {
      m_strFirst = "item at " + Hex(offset) + ": " + reason;
    }
    m_nFirst = std::min(m_nFirst, offset);
  }

  std::string EndText() const {
    const std::string has = "the file has " + std::to_string(m_nLength) + " bytes";
    if (m_Header.indexOffset <= m_nLength) return has + " and the last section no end";
    return has + ", its index began at " + std::to_string(m_Header.indexOffset) +
           "; what lay behind is lost";
  }

  ImageFile m_image;
  uint64_t m_nLength;
  DecodedHeader m_Header;
  ItemJudge m_Judge;
  uint64_t m_nEnd = 0;  // of the last item
  Kind m_Last = Kind::Section;
  uint64_t m_nFirst;  // damage that is not to the data of a file
  std::string m_strFirst;
  const ItemVisitor& m_Visitor;
};

}  // namespace

bool HasReadableIndex(const ImageFile& image) {
  const DecodedHeader header = ReadImageHeader(image);
  try {
    CheckIndexOffset(header, image);
    return !CheckIndex(image, header.indexOffset).items.empty();
  } catch (const Error&) {
    return false;
  }
}

uint64_t VisitItems(const ImageFile& image, SectionTrust trust, const ItemVisitor& visitor) {
  if (trust == SectionTrust::Damaged) return LeftVisit(image, visitor).Run();
  return VisitSoundItems(image, trust == SectionTrust::Sound, visitor);
}

}  // namespace capsule::host
