#include "capsule/host/verifier.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <vector>

#include "capsule/container/stored_header.h"
#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/image.h"
#include "capsule/host/index/image_header.h"
#include "capsule/host/map/header_map.h"
#include "capsule/host/map/index_verifier.h"
#include "capsule/host/map/map_image.h"
#include "capsule/host/records/record_stream.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/scoped_descriptor.h"

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

// Those of an index that can be read and has a check value.
std::vector<RestartPoint> RestartsOf(int descriptor, const std::string& name,
                                     const DecodedHeader& header) {
  const auto length = static_cast<uint64_t>(platform::FileLength(descriptor));
  try {
    CheckIndexOffset(header, name, length);
    return CheckIndex(descriptor, name, header.indexOffset, length).restarts;
  } catch (const Error&) {
    return {};
  }
}

class VerifyRun {
 public:
  VerifyRun(int descriptor, std::string name, const DecodedHeader& header,
            const std::function<void(const Fault&)>& take)
      : m_nDescriptor(descriptor),
        m_strName(std::move(name)),
        m_bCompressed(header.compressed),
        m_Take(take),
        m_Window(descriptor, m_strName),
        m_Index(m_Window, static_cast<uint64_t>(platform::FileLength(descriptor)),
                [this](uint64_t offset, const std::string& path, std::string reason) {
                  Tell(offset, path, reason);
                }),
        m_Restarts(RestartsOf(descriptor, m_strName, header)) {}

  VerifyReport Verify() {
    MapImage(m_nDescriptor, m_strName, [this](const MapItem& item) { Take(item); });
    CloseFile();
    TellUnnamed();
    CompareWithOpening();
    m_Report.checkValues = m_Index.CheckValues();
    return m_Report;
  }

 private:
  void Take(const MapItem& item) {
    const bool ofFile = item.kind == MapItem::Kind::DataBlock && item.problem.empty();
    if (m_File.isOpen && ofFile) {
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
    ++m_Report.files;
    RecordSource source;
    source.descriptor = m_nDescriptor;
    source.rules.imageIsCompressed = m_bCompressed;
    source.begin = m_File.begin;
    source.limit = m_File.end;
    source.size = m_File.size;
    source.imagePath = m_strName;
    source.entryPath = m_File.path;
    try {
      if (source.size == 0) return;
      RecordStream stream(source);
      while (stream.ChunkEnd() < source.size) {
        CompareRestarts(stream);
        stream.Advance(source.size);
      }
      TellRestartsBefore(m_File.end);
      m_Report.bytes += source.size;
    } catch (const Error& error) {
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
    MapImage(m_nDescriptor, m_strName, [&](const MapItem& item) {
      if (item.beginsEntry && !m_Index.Names(item.offset)) {
        Tell(item.offset, item.path, "the index does not name what begins here");
      }
    });
  }

  // What opening the image finds is a fault here too, so that no command calls an image damaged
  // that this one calls sound. Files of NTFS partitions are read through the tree that it gives.
  void CompareWithOpening() {
    try {
      const Image image(m_strName, Opening::Salvage);
      for (const ImageProblem& problem : image.Problems()) {
        if (!problem.offset || !m_Told.contains(*problem.offset)) {
          Tell(problem.offset.value_or(0), problem.path, problem.reason);
        }
      }
      if (!image.IsWhole() && m_Report.faults == 0) Tell(0, "", image.Info().scanReason);
      if (!m_bNtfs) return;
      for (int n = 0; n < image.Partitions(); ++n) {
        if (image.Info().partitions[static_cast<size_t>(n)].systemId != kSystemIdNtfs) continue;
        ReadBelow(image, image.Root(n));
      }
    } catch (const ShortageError&) {
      throw;
    } catch (const Error& error) {
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
    ++m_Report.files;
    try {
      FileReader reader = image.OpenFile(entry);
      std::vector<unsigned char> bytes(FileWindow::kSize);
      for (uint64_t at = 0; at < entry.Size();) {
        const size_t got = reader.Read(at, bytes);
        if (got == 0) break;
        at += got;
      }
      m_Report.bytes += entry.Size();
    } catch (const Error& error) {
      TellError(error, entry.Path(), entry.Offset());
    }
  }

  void Tell(uint64_t offset, const std::string& path, const std::string& reason) {
    ++m_Report.faults;
    m_Told.insert(offset);
    m_Take({offset, path, reason});
  }

  int m_nDescriptor;
  std::string m_strName;
  bool m_bCompressed;
  const std::function<void(const Fault&)>& m_Take;
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

VerifyReport Verifier::Run(const std::function<void(const Fault&)>& take) const {
  const std::string name = m_Path.string();
  const platform::ScopedDescriptor file(platform::OpenForReading(m_Path.c_str()));
  if (!file) throw Error(name, "cannot open: " + SystemReason(errno));
  if (platform::FileLength(file.Get()) < 0) {
    throw Error(name, "cannot tell its length: " + SystemReason(errno));
  }
  FileWindow window(file.Get(), name);
  const StoredHeader header(window.At(0, kHeaderSize));
  if (const std::string why = header.WhyNotAnImage(); !why.empty()) throw Error(name, why);
  return VerifyRun(file.Get(), name, *header.decoded, take).Verify();
}

}  // namespace capsule::host
