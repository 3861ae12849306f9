// 1. No place is resumed at twice, so a survey ends. It goes back at most to the last file, whose
//    damaged length may have led too far.
// 2. A lost folder is replaced by one of the survey's own: its zero entry must close something, or
//    what follows would land one level too high.
#include "capsule/host/sections/searching_survey.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/records/record_judge.h"
#include "capsule/host/sections/section_resync.h"
#include "capsule/host/sections/sound_item.h"
#include "capsule/host/sections/survey_places.h"
#include "capsule/host/sections/survey_repair.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

constexpr uint64_t kWorkPerByte = 8;
constexpr uint64_t kLeastWork = 1 << 20;
constexpr uint64_t kLeastWayBack = 16 << 20;
constexpr uint64_t kMostZeroEntries = 64;  // that may be lost in one place

class SearchingSurvey {
 public:
  SearchingSurvey(const ImageFile& image, const SearchHints& hints, const SurveyVisitor& visitor)
      : m_image(image),
        m_scanner(image),
        m_window(image),
        m_hints(hints),
        m_work(kLeastWork + kWorkPerByte * hints.limit),
        m_wayBack(kLeastWayBack + kWorkPerByte * hints.limit),
        m_visitor(visitor) {}

  void Run() {
    bool goesOn = true;
    while (goesOn) {
      SurveyItem found;
      const uint64_t start = m_scanner.Position();
      try {
        goesOn = m_scanner.Next(&found.item);
        if (goesOn) Compare(found.item);
        if (goesOn) Take(std::move(found));
      } catch (const ShortageError&) {
        throw;
      } catch (const Error& error) {
        const bool inSection = m_scanner.InSection();
        const uint64_t reached = m_scanner.Position();
        goesOn = inSection ? Recover(start, std::move(found), error) : RecoverSection(start);
        const bool isOfFile =
            inSection && !m_items.back().isGap && m_items.back().item.kind == Kind::File;
        if (isOfFile) m_items.back().damage = error.Reason();
        const auto& tell = isOfFile ? m_visitor.onFileDamage : m_visitor.onDamage;
        tell(error.Offset().value_or(start), error.Reason());
        goesOn = goesOn && MayGoBack(reached);
      }
    }
    Flush();
  }

 private:
  void Take(SurveyItem found) {
    SectionItem& item = found.item;
    if (!item.problem.empty()) m_visitor.onDamage(item.offset, item.problem);
    if (item.isNtfs && !item.isRoot && item.kind != Kind::NtfsEnd && item.name.empty()) {
      m_visitor.onDamage(item.offset, "FILE record has no name");
      item.name = item.shortName = "damaged-" + Hex(item.offset);
    }
    if (item.isStray) AdoptStray(&item);
    if (item.kind == Kind::Section) Flush();
    m_items.push_back(std::move(found));
  }

  // Whether the survey, which had been at `reached`, may go on where it is now: records that lie
  // one in the other could make it pass the same bytes time and again.
  bool MayGoBack(uint64_t reached) {
    const uint64_t at = m_scanner.Position();
    const uint64_t way = reached - std::min(reached, at);
    if (way > m_wayBack) {
      m_visitor.onDamage(at, "too many records lead too far; what follows is left out");
      return false;
    }
    m_wayBack -= way;
    return true;
  }

  const SurveyOutline::Item* KnownAt(uint64_t offset) const {
    return m_hints.outline == nullptr ? nullptr : m_hints.outline->At(offset);
  }

  // Throws when an item is not what an index says, nor sound, or cannot be as long as it seems.
  void Compare(const SectionItem& item) {
    const SurveyOutline::Item* known = KnownAt(item.offset);
    const bool isInside =
        item.kind != Kind::Section && item.kind != Kind::Trailer && item.kind != Kind::NtfsEnd;
    if (known == nullptr || !isInside) return RefuseLeap(item);
    const uint64_t end = item.offset + item.length;
    const bool endsThere = known->end == end;
    const bool isOfKind = item.isNtfs || !known->kind || *known->kind == item.kind;
    if (endsThere && isOfKind) return;
    const SoundItem sound(m_window, m_image, m_scanner.Header().compressed);
    // Data of NTFS files may be padded: a damaged length can go unnoticed.
    const bool hasData = item.kind == Kind::File && item.entry.FileSize != 0 && !item.isNtfs;
    if (endsThere && sound.IsRatherThan(item, *known->kind)) return;
    if (!endsThere && (hasData || IsFollowed(end)) && sound.Is(item)) return;
    throw Error("", "records at " + Hex(item.offset) + " are not what the index says");
  }

  bool IsFollowed(uint64_t end) {
    const auto next = FindResumePoint(m_window, end, Until(Range(), end + kPartitionHeaderSize));
    return next && next->offset == end;
  }

  // Throws when a file has taken what follows it for its data, because a length is damaged.
  void RefuseLeap(const SectionItem& item) {
    const uint64_t end = item.offset + item.length;
    const bool isSuspect = m_hints.readsData && item.kind == Kind::File && !item.isNtfs &&
                           FindRecordMark(m_window, item.dataOffset, end) < end;
    if (!isSuspect) return;
    const uint64_t whole =
        EndOfWholeRecords(m_window, item.dataOffset, end, Rules(RecordKind::Fat));
    if (whole < end) throw Error("", "data block at " + Hex(whole) + " is damaged", end);
  }

  void AdoptStray(SectionItem* item) {
    m_visitor.onStray(item->offset);
    SurveyItem folder = LostFolder(item->offset, "damaged-" + Hex(item->offset) + "-folder");
    m_scanner.AdoptStray(folder.item.name, item);
    folder.item.isNtfs = true;
    folder.item.depth = item->depth - 1;
    m_items.push_back(std::move(folder));
  }

  // Hands out the items of one section.
  void Flush() {
    const bool isFat = std::none_of(m_items.begin(), m_items.end(),
                                    [](const SurveyItem& item) { return item.item.isNtfs; });
    if (isFat) {
      m_items = PlaceBehindLosses(MendSection(std::move(m_items), m_visitor), m_visitor);
    }
    for (const SurveyItem& item : m_items) {
      if (!item.isGap) m_visitor.onItem(item);
    }
    m_items.clear();
  }

  // A section whose header is damaged begins where the one before it ended, if its records do.
  bool RecoverSection(uint64_t start) {
    const uint64_t first = start + kPartitionHeaderSize;
    ResyncRange range = Range();
    if (std::binary_search(m_hints.sections.begin(), m_hints.sections.end(), start)) {
      m_scanner.Resume(start, false);
      PassHeader();
      return true;
    }
    range.sections = {};
    for (const RecordKind kind : {RecordKind::Fat, RecordKind::Ntfs}) {
      range.rules.kind = kind;
      const auto here =
          FindResumePoint(m_window, first, Until(range, first + kPartitionHeaderSize));
      if (!here || here->offset != first || here->startsSection) continue;
      m_scanner.Resume(start, false);
      PassHeader();
      return true;
    }
    range.rules.kind = RecordKind::Fat;
    range.sections = m_hints.sections;
    uint64_t at = start + 1;
    for (auto next = FindResumePoint(m_window, at, range); next;
         next = FindResumePoint(m_window, at, range)) {
      at = next->offset + 1;
      if (!next->startsSection) continue;
      m_scanner.Resume(next->offset, false);
      return true;
    }
    return false;
  }

  void PassHeader() {
    SurveyItem section;
    m_scanner.PassSectionHeader(&section.item);
    Take(std::move(section));
  }

  // `found`: as far as it could be read, from `start` on.
  bool Recover(uint64_t start, SurveyItem found, const Error& error) {
    if (const SurveyOutline::Item* known = KnownAt(start)) {
      TakeKnown(*known, std::move(found));
      m_least = known->end;
      m_scanner.Resume(known->end, true);
      return true;
    }
    const uint64_t failed = std::max(error.Offset().value_or(start), start);
    const bool hasEntry = found.item.kind == Kind::File && found.item.dataOffset != 0;
    if (hasEntry) m_items.push_back(std::move(found));
    const uint64_t from = hasEntry ? ResumeFrom(failed, failed) : ResumeFrom(start, failed);
    const uint64_t least = std::max(from, m_least);
    auto next = FindResumePoint(m_window, least, Range());
    if (next && next->offset == start) next = FindResumePoint(m_window, start + 1, Range());
    const uint64_t end = next ? next->offset : m_hints.limit;
    if (hasEntry || end <= start || ContinuesFile(start)) {
      SectionItem& last = m_items.back().item;
      last.length = std::max(end, last.dataOffset) - last.offset;
      if (next && !LeadsTo(from == failed ? failed : from - 1, *next)) {
        m_items.back().lost += next->offset - least - next->dataBytes;
      }
    } else {
      AddGap(start, end, next ? next->dataBytes : 0);
    }
    if (!next) return false;
    m_least = next->offset + 1;
    m_scanner.Resume(next->offset, !next->startsSection);
    return true;
  }

  // Whether nothing but a damaged data block is lost at `at`: its header still leads to what
  // follows, or it is whole but for its type and length.
  bool LeadsTo(uint64_t at, const ResumePoint& next) {
    const uint64_t length = next.offset - next.dataBytes - std::min(next.offset, at);
    const auto bytes = m_window.At(at, FileWindow::kSize);
    if (bytes.size() < length || length < kMiniHeaderSize) return false;
    _MiniHeader header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
    const uint64_t payload = length - kMiniHeaderSize;
    if (header.Length == payload) return true;
    header.Type = kRecordDataBlock;
    header.Length = static_cast<uint16_t>(payload);
    if (header.Length != payload || m_work < payload) return false;
    m_work -= payload;
    const auto record = bytes.first(static_cast<size_t>(length));
    std::vector<unsigned char> mended(record.begin(), record.end());
    const auto encoded = EncodeMiniHeader(header);
    std::copy(encoded.begin(), encoded.end(), mended.begin());
    return IsWholeDataRecord(mended, Rules(RecordKind::Fat));
  }

  // An item that is damaged, where an index says where it ends. `found`: as far as it could be
  // read.
  void TakeKnown(const SurveyOutline::Item& known, SurveyItem found) {
    SectionItem& item = found.item;
    const bool isNtfs = m_scanner.InNtfsSection();
    const bool mayHaveData = item.kind == Kind::File || (isNtfs && item.kind == Kind::Directory);
    const bool hasEntry = mayHaveData && item.dataOffset != 0 && item.dataOffset <= known.end &&
                          !IsMostlyZero(item.entry);
    const Kind kind = isNtfs || !known.kind ? Kind::File : *known.kind;
    const bool hasName = (item.kind == Kind::File || item.kind == Kind::Directory) &&
                         !HasBadName(item) && !IsMostlyZero(item.entry);
    if (kind == Kind::Directory && !hasName) {
      found = LostFolder(known.offset);
    } else if (kind == Kind::Directory) {
      item.kind = kind;
    } else if (kind != Kind::File) {
      found = PlainItem(kind, known.offset);
    } else if (!hasEntry) {
      if (known.end - known.offset == kDirRecordSize) return AddRecordOfGap(known.offset);
      found = SurveyItem();
      found.isGap = true;
    }
    item.offset = known.offset;
    item.length = known.end - known.offset;
    Take(std::move(found));
  }

  // Whether what is at `at` belongs to the file that ends there.
  bool ContinuesFile(uint64_t at) {
    if (m_items.empty() || m_items.back().isGap) return false;
    const SectionItem& item = m_items.back().item;
    if (item.kind != Kind::File || item.offset + item.length != at) return false;
    const auto type = m_window.At(at, 1);
    return item.isNtfs || (!type.empty() && type[0] == kRecordDataBlock);
  }

  // What cannot be told; a zero entry still is one.
  void AddGap(uint64_t start, uint64_t end, uint64_t dataFound) {
    const uint64_t dataBytes = std::min(dataFound, end - start);  // some may lie before
    SurveyItem gap;
    gap.item.offset = start;
    gap.item.length = end - start;
    gap.isGap = true;
    gap.hasData = dataBytes > 0;
    gap.lost = end - start - dataBytes - RecordBytes(start, end - dataBytes);
    const bool mayBeRecords = !gap.hasData && !m_scanner.InNtfsSection() &&
                              gap.item.length % kDirRecordSize == 0 &&
                              gap.item.length <= kMostZeroEntries * kDirRecordSize;
    if (!mayBeRecords) return m_items.push_back(std::move(gap));
    for (uint64_t at = start; at < end; at += kDirRecordSize) {
      AddRecordOfGap(at);
      SurveyItem& record = m_items.back();
      const bool hasHeader = HasHeaderLeft(at);
      record.isGap = record.isGap || !hasHeader;
      if (!hasHeader) record.lost = kDirRecordSize;
    }
  }

  // From `start` on, of directory records that have most of their headers: they hide no others.
  uint64_t RecordBytes(uint64_t start, uint64_t end) {
    uint64_t at = start;
    while (at + kDirRecordSize <= end && HasHeaderLeft(at)) at += kDirRecordSize;
    return at - start;
  }

  // Whether some of the header of a directory record is there: what files hold may be zero, too.
  bool HasHeaderLeft(uint64_t at) {
    const auto bytes = m_window.At(at, kMiniHeaderSize);
    if (bytes.size() < kMiniHeaderSize) return false;
    const _MiniHeader header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
    return (header.Type == kRecordDirectory) + (header.Flag == 1) +
               (header.Length == kDirEntrySize) >=
           2;
  }

  void AddRecordOfGap(uint64_t at) {
    SurveyItem found;
    found.item.offset = at;
    found.item.length = kDirRecordSize;
    const auto bytes = m_window.At(at, kDirRecordSize);
    if (bytes.size() == kDirRecordSize) {
      found.item.entry = DecodeShortEntry(bytes.last<kDirEntrySize>());
      found.item.kind = Kind::ZeroEntry;
    }
    found.isGap = bytes.size() < kDirRecordSize || !IsMostlyZero(found.item.entry);
    m_items.push_back(std::move(found));
  }

  // A damaged length leads away from where the next record is: what is searched begins behind the
  // last record that is whole, else at `least`. `end`: where the last file's records seem to end.
  uint64_t ResumeFrom(uint64_t end, uint64_t least) {
    if (m_items.empty() || m_items.back().isGap) return least;
    const SectionItem& last = m_items.back().item;
    const bool hasData = last.kind == Kind::File || (last.isNtfs && last.kind == Kind::Directory);
    if (!hasData || last.dataOffset == 0 || last.dataOffset >= end) return least;
    if (last.dataOffset != m_judgedData) {  // else the end that was found stays
      m_judgedData = last.dataOffset;
      m_wholeEnd = EndOfWholeRecords(m_window, last.dataOffset, end, Rules(last.Records()));
    }
    return m_wholeEnd < end ? m_wholeEnd + 1 : least;
  }

  ResyncRange Range() {
    const RecordKind kind = m_scanner.InNtfsSection() ? RecordKind::Ntfs : RecordKind::Fat;
    return {m_hints.limit, Rules(kind), m_hints.sections, &m_work};
  }

  RecordRules Rules(RecordKind kind) const { return {kind, m_scanner.Header().compressed}; }

  static ResyncRange Until(ResyncRange range, uint64_t limit) {
    range.limit = std::min(range.limit, limit);
    return range;
  }

  ImageFile m_image;
  SectionScanner m_scanner;
  FileWindow m_window;
  SearchHints m_hints;
  uint64_t m_work;
  uint64_t m_wayBack;         // bytes that it may still go back
  uint64_t m_least = 0;       // no place is returned to twice
  uint64_t m_judgedData = 0;  // of the file whose whole records end at m_wholeEnd
  uint64_t m_wholeEnd = 0;
  const SurveyVisitor& m_visitor;
  std::vector<SurveyItem> m_items;  // of the section
};

}  // namespace

void SurveyBySearch(const ImageFile& image, const SearchHints& hints,
                    const SurveyVisitor& visitor) {
  SearchingSurvey(image, hints, visitor).Run();
}

}  // namespace capsule::host
