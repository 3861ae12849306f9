// The map of the image is taken item by item: a file of a FAT-style section is decoded when the map
// has passed its records, and the index is compared as it comes. What takes long is left to
// VerifySteps, so while the map is taken nothing is told but by them. The image is opened before:
// items are called as its tree calls them, and in the end all that opening found wrong is a fault.
#include "capsule/host/verifier.h"

#include <algorithm>
#include <vector>

#include "capsule/container/stored_header.h"
#include "capsule/host/error.h"
#include "capsule/host/image.h"
#include "capsule/host/index/image_header.h"
#include "capsule/host/map/header_map.h"
#include "capsule/host/map/image_mapper.h"
#include "capsule/host/map/index_verifier.h"
#include "capsule/host/records/ntfs_entry.h"
#include "capsule/host/verify/telling.h"
#include "capsule/host/verify/verify_steps.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {
namespace {

// The file whose records the map is passing.
struct OpenFile {
  bool isOpen = false;
  std::string path;
  uint64_t begin = 0;  // of its data block records
  uint64_t end = 0;
  uint64_t size = 0;
};

// The restart points of an index that can be read and has a check value.
std::vector<RestartPoint> RestartsOf(const ImageFile& image, const DecodedHeader& header) {
  try {
    RequireIndexInFile(header, image);
    return ReadIndex(image, header.indexOffset).restarts;
  } catch (const ShortageError&) {
    throw;
  } catch (const Error&) {
    return {};
  }
}

class VerifyRun {
 public:
  VerifyRun(const ImageFile& image, const DecodedHeader& header,
            const std::function<void(const Fault&)>& take, const VerifyOptions& options)
      : m_image(image),
        m_tree(OpenLeft(image, &m_whyNotOpen)),
        m_compressed(header.compressed),
        m_telling{take, Watch(image.Name(), options.onProgress, options.stop)},
        m_window(image),
        m_restarts(RestartsOf(image, header)),
        m_steps(image, m_restarts, m_telling, options),
        m_index(
            m_window, image.Size(),
            [this](uint64_t offset, const std::string& path, std::string reason) {
              m_steps.AddFault(offset, path, std::move(reason));
            },
            [this](CheckedRegion region, const std::string& path) {
              m_steps.AddRegion(std::move(region), path);
            }) {}

  VerifyReport Verify() {
    m_watch.Now().bytesTotal = m_image.Size();
    TakeMap();
    TellUnnamed();
    CompareWithOpening();
    m_report.checkValues = m_index.CheckValues();
    m_watch.Tell(m_watch.Now().bytesTotal, "");
    return m_report;
  }

 private:
  void TakeMap() {
    try {
      MapImage(m_image, m_tree.get(), [this](const MapItem& item) { Take(item); });
    } catch (...) {
      m_steps.SettleBeforeThrowing();
      throw;
    }
    CloseFile();
    m_steps.Settle();
  }

  void Take(const MapItem& item) {
    m_steps.Proceed();
    const bool ofFile = item.kind == MapItem::Kind::DataBlock && item.problem.empty();
    if (m_file.isOpen && ofFile) {
      m_watch.Check();
      m_file.end = item.offset + item.length;
      return;
    }
    // A record of the file that is damaged is told as such, and the file is read no further.
    const bool isHit = !item.problem.empty() && item.path == m_file.path;
    if (m_file.isOpen && isHit) {
      m_file.isOpen = false;
      m_steps.AddUnreadFile();
    }
    CloseFile();
    m_steps.AddPlace(item.offset, item.path);
    if (!item.problem.empty()) {
      m_steps.AddFault(item.offset, item.path, KindOf(item) + item.problem);
    }
    m_report.hasIndex = m_report.hasIndex || item.kind == MapItem::Kind::IndexStart;
    if (item.kind == MapItem::Kind::NtfsRecord) TakeNtfs(item);
    m_index.Take(item);
    const bool isFile =
        item.kind == MapItem::Kind::ShortEntry && (item.attributes & kDirectoryAttribute) == 0;
    if (!isFile) return;
    const uint64_t data = item.offset + item.length;
    m_file = {true, item.path, data, data, item.fileSize};
  }

  void TakeNtfs(const MapItem& item) {
    m_ntfs = true;
    if (BeginsNtfsEntry(item.type)) m_ntfsEntry = item.offset;
    const bool isBare = item.type == kNtfsFileRecord;
    if (isBare) m_bare.push_back(item.offset);
    if (IsNtfsData(item.type) && !m_bare.empty() && m_bare.back() == m_ntfsEntry) {
      m_bare.pop_back();
    }
  }

  bool IsLeftOut(const Entry& entry) const {
    return IsNtfsOwnFile(entry.Name(), entry.Parent().IsRoot()) &&
           std::binary_search(m_bare.begin(), m_bare.end(), entry.Offset());
  }

  static std::string KindOf(const MapItem& item) {
    return item.kind == MapItem::Kind::Gap ? "" : std::string(MapKindName(item.kind)) + ": ";
  }

  // The file that has been passed is to be decoded.
  void CloseFile() {
    if (!m_file.isOpen) return;
    m_file.isOpen = false;
    RecordSource source;
    source.image = m_image;
    source.rules.imageIsCompressed = m_compressed;
    source.begin = m_file.begin;
    source.limit = m_file.end;
    source.size = m_file.size;
    source.entryPath = m_file.path;
    m_steps.AddFile(source);
  }

  // The reason without the path that it begins with.
  void TellError(const Error& error, const std::string& path, uint64_t offset) {
    Tell(error.Offset().value_or(offset), path, WithoutPath(error.Reason(), path));
  }

  // What the index leaves out, readers never see. Only then is the image walked again.
  void TellUnnamed() {
    if (m_index.NamesAll()) return;
    MapImage(m_image, m_tree.get(), [&](const MapItem& item) {
      if (item.beginsEntry && !m_index.Names(item.offset)) {
        Tell(item.offset, item.path, "the index does not name what begins here");
      }
    });
  }

  // What opening the image finds is a fault here too, so that no command calls an image damaged
  // that this one calls sound. Files of NTFS partitions are read through the tree that it gives.
  void CompareWithOpening() {
    if (m_whyNotOpen && m_report.faults == 0) {
      Tell(m_whyNotOpen->Offset().value_or(0), "", m_whyNotOpen->Reason());
    }
    if (!m_tree) return;
    const Image& image = *m_tree;
    for (const ImageProblem& problem : image.Problems()) {
      if (!problem.offset || !m_telling.told.contains(*problem.offset)) {
        Tell(problem.offset.value_or(0), problem.path, problem.reason);
      }
    }
    if (!image.IsWhole() && m_report.faults == 0) Tell(0, "", image.Info().scanReason);
    if (!m_ntfs) return;
    for (int n = 0; n < image.Partitions(); ++n) {
      const PartitionInfo& partition = image.Info().partitions[static_cast<size_t>(n)];
      if (partition.systemId != kSystemIdNtfs) continue;
      m_watch.Now().bytesTotal += partition.bytes;
      ReadBelow(image, image.Root(n));
    }
  }

  void ReadBelow(const Image& image, const Entry& root) {
    std::vector<Entry> left{root};
    while (!left.empty()) {
      const Entry entry = left.back();
      left.pop_back();
      for (const Entry& child : entry.Children()) left.push_back(child);
      if (!entry.IsDirectory() && !IsLeftOut(entry)) ReadFile(image, entry);
    }
  }

  void ReadFile(const Image& image, const Entry& entry) {
    m_watch.Now().files = ++m_report.files;
    const uint64_t before = m_watch.Now().bytesDone;
    const std::string path = m_watch.IsHeard() ? entry.Path() : "";
    try {
      FileReader reader = image.OpenFile(entry);
      uint64_t at = before;
      reader.CopyTo(0, entry.Size(), [&](std::span<const unsigned char> piece) {
        m_watch.TellWithin(at += piece.size(), path);
      });
      m_report.bytes += entry.Size();
    } catch (const Error& error) {
      if (m_watch.IsEnd(error)) throw;
      TellError(error, entry.Path(), entry.Offset());
    }
  }

  void Tell(uint64_t offset, const std::string& path, const std::string& reason) {
    m_telling.Tell(offset, path, reason);
  }

  ImageFile m_image;
  std::optional<Error> m_whyNotOpen;
  std::unique_ptr<Image> m_tree;
  bool m_compressed;
  Telling m_telling;
  Watch& m_watch = m_telling.watch;
  VerifyReport& m_report = m_telling.report;
  FileWindow m_window;
  OpenFile m_file;
  std::vector<RestartPoint> m_restarts;  // by record
  VerifySteps m_steps;
  IndexVerifier m_index;
  bool m_ntfs = false;
  uint64_t m_ntfsEntry = 0;
  std::vector<uint64_t> m_bare;  // files of NTFS partitions without data records
};

}  // namespace

Verifier::Verifier(const std::filesystem::path& image)
    : Verifier(FileSource(image), image.string()) {}

Verifier::Verifier(std::shared_ptr<const ByteSource> source, std::string name)
    : m_source(std::move(source)), m_name(std::move(name)) {}

VerifyReport Verifier::Run(const std::function<void(const Fault&)>& take,
                           const VerifyOptions& options) const {
  if (!m_source) throw Error(ErrorKind::Misuse, "", "the object was moved from");
  const ImageFile image(m_source, m_name);
  FileWindow window(image);
  const StoredHeader header(window.At(0, kHeaderSize));
  const std::string why = header.WhyNotAnImage();
  if (!why.empty()) throw Error(KindOfBadHeader(header), m_name, why);
  return VerifyRun(image, *header.decoded, take, options).Verify();
}

}  // namespace capsule::host
