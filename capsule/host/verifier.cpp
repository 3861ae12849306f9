// The map of the image is taken item by item: a file of a FAT-style section is decoded when the map
// has passed its records, and the index is compared as it comes. Then the image is opened, so that
// whatever opening finds wrong is a fault as well.
#include "capsule/host/verifier.h"

#include <algorithm>
#include <set>
#include <vector>

#include "capsule/container/stored_header.h"
#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/file/watch.h"
#include "capsule/host/image.h"
#include "capsule/host/index/image_header.h"
#include "capsule/host/map/header_map.h"
#include "capsule/host/map/image_mapper.h"
#include "capsule/host/map/index_verifier.h"
#include "capsule/host/records/record_stream.h"
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
    CheckIndexOffset(header, image);
    return CheckIndex(image, header.indexOffset).restarts;
  } catch (const Error&) {
    return {};
  }
}

class VerifyRun {
 public:
  VerifyRun(const ImageFile& image, const DecodedHeader& header,
            const std::function<void(const Fault&)>& take, const VerifyOptions& options)
      : m_image(image),
        m_bCompressed(header.compressed),
        m_Take(take),
        m_watch(image.Name(), options.onProgress, options.stop),
        m_Window(image),
        m_Index(m_Window, image.Size(),
                [this](uint64_t offset, const std::string& path, std::string reason) {
                  Tell(offset, path, reason);
                }),
        m_Restarts(RestartsOf(image, header)) {}

  VerifyReport Verify() {
    m_watch.Now().bytesTotal = m_image.Size();
    MapImage(m_image, [this](const MapItem& item) { Take(item); });
    CloseFile();
    TellUnnamed();
    CompareWithOpening();
    m_Report.checkValues = m_Index.CheckValues();
    m_watch.Tell(m_watch.Now().bytesTotal, "");
    return m_Report;
  }

 private:
  void Take(const MapItem& item) {
    const bool ofFile = item.kind == MapItem::Kind::DataBlock && item.problem.empty();
    if (m_File.isOpen && ofFile) {
      m_watch.Check();
      m_File.end = item.offset + item.length;
      return;
    }
    // A record of the file that is damaged is told as such, and the file is read no further.
    const bool isHit = !item.problem.empty() && item.path == m_File.path;
    if (m_File.isOpen && isHit) {
      m_File.isOpen = false;
      ++m_Report.files;
    }
    CloseFile();
    m_watch.TellWithin(item.offset, item.path);
    if (!item.problem.empty()) Tell(item.offset, item.path, KindOf(item) + item.problem);
    m_Report.hasIndex = m_Report.hasIndex || item.kind == MapItem::Kind::IndexStart;
    if (item.kind == MapItem::Kind::NtfsRecord) TakeNtfs(item);
    m_Index.Take(item);
    const bool isFile =
        item.kind == MapItem::Kind::ShortEntry && (item.attributes & kDirectoryAttribute) == 0;
    if (!isFile) return;
    const uint64_t data = item.offset + item.length;
    m_File = {true, item.path, data, data, item.fileSize};
  }

  void TakeNtfs(const MapItem& item) {
    m_bNtfs = true;
    if (BeginsNtfsEntry(item.type)) m_nNtfsEntry = item.offset;
    const bool isBare = item.type == kNtfsFileRecord;
    if (isBare) m_Bare.push_back(item.offset);
    if (IsNtfsData(item.type) && !m_Bare.empty() && m_Bare.back() == m_nNtfsEntry) {
      m_Bare.pop_back();
    }
  }

  // Writers leave out what the file system keeps in files of its own.
  bool IsLeftOut(const Entry& entry) const {
    return entry.Parent().IsRoot() && entry.Name().starts_with('$') &&
           std::binary_search(m_Bare.begin(), m_Bare.end(), entry.Offset());
  }

  static std::string KindOf(const MapItem& item) {
    return item.kind == MapItem::Kind::Gap ? "" : std::string(MapKindName(item.kind)) + ": ";
  }

  // Decodes the file that has been passed.
  void CloseFile() {
    if (!m_File.isOpen) return;
    m_File.isOpen = false;
    m_watch.Now().files = ++m_Report.files;
    RecordSource source;
    source.image = m_image;
    source.rules.imageIsCompressed = m_bCompressed;
    source.begin = m_File.begin;
    source.limit = m_File.end;
    source.size = m_File.size;
    source.entryPath = m_File.path;
    try {
      if (source.size == 0) return;
      RecordStream stream(source);
      while (stream.ChunkEnd() < source.size) {
        CompareRestarts(stream);
        m_watch.TellWithin(stream.Position(), m_File.path);
        stream.Advance(source.size);
      }
      TellRestartsBefore(m_File.end);
      m_Report.bytes += source.size;
    } catch (const Error& error) {
      if (m_watch.IsEnd(error)) throw;
      TellError(error, m_File.path, m_File.begin);
    }
  }

  // What the index tells of the place where the stream stands.
  void CompareRestarts(const RecordStream& stream) {
    TellRestartsBefore(stream.Position());
    if (m_nRestart == m_Restarts.size() || m_Restarts[m_nRestart].record > stream.Position())
      return;
    const RestartPoint& point = m_Restarts[m_nRestart++];
    if (point.fileOffset != stream.ChunkEnd()) {
      Tell(point.record, m_File.path,
           "restart point is for byte " + std::to_string(point.fileOffset) + " of the file, byte " +
               std::to_string(stream.ChunkEnd()) + " is here");
      return;
    }
    const auto history = m_Window.At(point.history, point.historyLength);
    const auto wanted = stream.History();
    if (!std::equal(history.begin(), history.end(), wanted.begin(), wanted.end())) {
      Tell(point.record, m_File.path, "restart point has another history than the file");
    }
  }

  // Restart points of the file that no record is at.
  void TellRestartsBefore(uint64_t offset) {
    for (; m_nRestart < m_Restarts.size() && m_Restarts[m_nRestart].record < offset; ++m_nRestart) {
      const uint64_t record = m_Restarts[m_nRestart].record;
      if (record >= m_File.begin)
        Tell(record, m_File.path, "restart point is where no data block begins");
    }
  }

  // The reason without the path that it begins with.
  void TellError(const Error& error, const std::string& path, uint64_t offset) {
    Tell(error.Offset().value_or(offset), path, WithoutPath(error.Reason(), path));
  }

  // What the index leaves out, readers never see. Only then is the image walked again.
  void TellUnnamed() {
    if (m_Index.NamesAll()) return;
    MapImage(m_image, [&](const MapItem& item) {
      if (item.beginsEntry && !m_Index.Names(item.offset)) {
        Tell(item.offset, item.path, "the index does not name what begins here");
      }
    });
  }

  // What opening the image finds is a fault here too, so that no command calls an image damaged
  // that this one calls sound. Files of NTFS partitions are read through the tree that it gives.
  void CompareWithOpening() {
    try {
      const Image image(m_image.Source(), m_image.Name(), Opening::Salvage);
      for (const ImageProblem& problem : image.Problems()) {
        if (!problem.offset || !m_Told.contains(*problem.offset)) {
          Tell(problem.offset.value_or(0), problem.path, problem.reason);
        }
      }
      if (!image.IsWhole() && m_Report.faults == 0) Tell(0, "", image.Info().scanReason);
      if (!m_bNtfs) return;
      for (int n = 0; n < image.Partitions(); ++n) {
        const PartitionInfo& partition = image.Info().partitions[static_cast<size_t>(n)];
        if (partition.systemId != kSystemIdNtfs) continue;
        m_watch.Now().bytesTotal += partition.bytes;
        ReadBelow(image, image.Root(n));
      }
    } catch (const ShortageError&) {
      throw;
    } catch (const Error& error) {
      if (m_watch.IsEnd(error)) throw;
      if (m_Report.faults == 0) Tell(error.Offset().value_or(0), "", error.Reason());
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
    m_watch.Now().files = ++m_Report.files;
    const uint64_t before = m_watch.Now().bytesDone;
    const std::string path = m_watch.IsHeard() ? entry.Path() : "";
    try {
      FileReader reader = image.OpenFile(entry);
      uint64_t at = before;
      reader.CopyTo(0, entry.Size(), [&](std::span<const unsigned char> piece) {
        m_watch.TellWithin(at += piece.size(), path);
      });
      m_Report.bytes += entry.Size();
    } catch (const Error& error) {
      if (m_watch.IsEnd(error)) throw;
      TellError(error, entry.Path(), entry.Offset());
    }
  }

  void Tell(uint64_t offset, const std::string& path, const std::string& reason) {
    ++m_Report.faults;
    m_Told.insert(offset);
    m_Take({offset, path, reason});
  }

  ImageFile m_image;
  bool m_bCompressed;
  const std::function<void(const Fault&)>& m_Take;
  Watch m_watch;
  FileWindow m_Window;
  IndexVerifier m_Index;
  VerifyReport m_Report;
  std::set<uint64_t> m_Told;  // offsets of faults
  OpenFile m_File;
  std::vector<RestartPoint> m_Restarts;  // by record
  size_t m_nRestart = 0;                 // the next
  bool m_bNtfs = false;
  uint64_t m_nNtfsEntry = 0;
  std::vector<uint64_t> m_Bare;  // files of NTFS partitions without data records
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
