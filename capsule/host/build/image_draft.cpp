// An insertion that fails says little about the reason, so the reason is looked for afterwards: is
// the source still what it was, can it be read to its end, can the image grow? What is wrong with
// the source leaves out the item alone; what is wrong with the image ends the build.
#include "capsule/host/build/image_draft.h"

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "capsule/blocks/data_record.h"
#include "capsule/host/error.h"
#include "capsule/host/file/image_file.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/index_writer.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/opened_item.h"

namespace capsule::host {
namespace {

constexpr uint64_t kMaxFileSize = 0x7FFFFFFF;
constexpr const char* kChanged = "changed while it was read";

// An upper bound of what a file of `size` bytes takes in an image, long name and all.
uint64_t MostBytes(uint64_t size) {
  constexpr uint64_t kGroup = uint64_t{kDirRecordSize} * (kMaxLongNamePieces + 1);
  return kGroup + (size / kChunkSize + 1) * (kMiniHeaderSize + kCompressedChunkRoom);
}

// Whether a system call failed for want of room or rights in the image's file system.
bool IsWriteFailure(int error) {
  return error == ENOSPC || error == EDQUOT || error == EFBIG || error == EROFS;
}

std::string ItemPath(int partition, const std::string& relative) {
  std::string path = std::to_string(partition) + ":\\" + relative;
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

bool IsSame(const platform::FileStatus& a, const platform::FileStatus& b) {
  return a.identity == b.identity && a.kind == b.kind && a.size == b.size &&
         a.modification == b.modification;
}

// Whether a file yields all of its bytes; if not, errno says why, or is 0 when they are too few.
bool IsReadable(int descriptor, uint64_t size) {
  std::vector<unsigned char> bytes(size_t{64} << 10);
  for (uint64_t at = 0; at < size;) {
    errno = 0;
    const int64_t got =
        platform::ReadAt(descriptor, bytes.data(), bytes.size(), static_cast<int64_t>(at));
    if (got <= 0) return false;
    at += static_cast<uint64_t>(got);
  }
  return true;
}

// What is wrong with the source of an item that could not be inserted; empty when nothing is.
std::string SourceProblem(const SourceItem& item) {
  if (item.kind == SourceItem::Kind::Folder) return "";
  const auto now = platform::StatusOf(item.file.Get());
  if (!now) return SystemReason(errno);
  if (!IsSame(*now, item.status)) return kChanged;
  if (IsReadable(item.file.Get(), item.status.size)) return "";
  return errno != 0 ? SystemReason(errno) : kChanged;
}

}  // namespace

ImageDraft::ImageDraft(std::string target, std::string name, int level, const std::string& version,
                       std::stop_token stop)
    : m_target(std::move(target)), m_name(std::move(name)), m_observer(std::move(stop)) {
  if (const auto old = platform::Status(m_target)) {
    if (old->kind != platform::FileKind::Regular) Fail(ErrorKind::Exists, "is not a regular file");
    m_old = old->identity;
  }
  if (!m_temporary.Create(m_target)) FailAs("cannot be created", errno);
  m_own = platform::Identify(m_temporary.Descriptor());

  m_state.hostView.SetTimePolicy(platform::TimePolicy::ModificationOnly);
  const ScopedLibraryState scope(m_state);
  if (m_image.CreateCapsuleFile(m_temporary.Path().c_str()) != 0) {
    FailAs("cannot be created", m_image.GetLastError());
  }
  m_open = true;
  m_image.SetCompressionLevel(level);
  if (m_image.WriteImageFileHeader(version.c_str()) != 0) {
    const int error = m_image.GetLastError();
    CloseImage();
    FailAs("write of the header", error);
  }
}

ImageDraft::~ImageDraft() { CloseImage(); }

// What the host throws must not pass through the classes that insert: they take memory that cannot
// be had for a fault of the item.
bool ImageDraft::Observer::OnChunk(const Chunk& next) {
  if (stop.stop_requested()) return false;
  try {
    restarts.Take(next);
    if (onBytes && next.fileOffset != 0) onBytes(next.fileOffset);
  } catch (...) {
    thrown = std::current_exception();
    return false;
  }
  return true;
}

void ImageDraft::CapTimes(int64_t unixSeconds) { m_state.hostView.CapTimes(unixSeconds); }

void ImageDraft::BeginPartition(const std::string& label) {
  ++m_partition;
  m_labels.push_back(label);
  const ScopedLibraryState scope(m_state);
  errno = 0;
  if (m_image.BeginPartition(m_partition) == 0) return;
  FailAs("write", errno != 0 ? errno : EFBIG);
}

std::optional<std::string> ImageDraft::Insert(const SourceItem& item) {
  if (item.status.size > kMaxFileSize) {
    return "file has " + std::to_string(item.status.size) + " bytes, " +
           std::to_string(kMaxFileSize) + " are possible";
  }
  const ScopedLibraryState scope(m_state);
  const std::string previousDir = m_state.previousInsertDir;
  const int32_t levelsToClose = m_state.dirLevelsToClose;
  errno = 0;
  if (InsertOpened(item) == 0) return std::nullopt;
  const int error = errno;
  m_observer.restarts.Forget(m_image.GetWriteOffset());
  // What comes next lies where it would have without this item.
  m_state.previousInsertDir = previousDir;
  m_state.dirLevelsToClose = levelsToClose;
  if (m_observer.thrown) std::rethrow_exception(std::exchange(m_observer.thrown, nullptr));
  ThrowIfCancelled();
  // Whatever errno is when a source gives up, it says nothing about the image.
  if (!m_sourceProblem.empty()) return m_sourceProblem;
  ThrowIfShort(item.path, "cannot be inserted", error);
  if (IsWriteFailure(error)) FailAs("write", error);
  std::string problem = item.bytes ? "" : SourceProblem(item);
  if (!problem.empty()) return problem;
  ThrowIfFull(error, item.status.size);
  return error != 0 ? SystemReason(error) : "cannot be read";
}

// While the item is inserted, it stands for everything that paths could lead to.
int ImageDraft::InsertOpened(const SourceItem& item) {
  platform::OpenedItem opened{ItemPath(m_partition, item.relative),
                              item.file.Get(),
                              item.status,
                              item.folder,
                              item.alias,
                              item.attributes,
                              {}};
  m_sourceProblem.clear();
  if (item.bytes) {
    opened.read = [&](uint64_t offset, std::span<unsigned char> out) {
      return ReadSource(item, offset, out);
    };
  }
  m_state.hostView.SetOpenedItem(&opened);
  const int result = m_image.InsertFile(opened.path.c_str(), m_partition, &m_observer);
  m_state.hostView.SetOpenedItem(nullptr);
  return result;
}

// What goes wrong with bytes of the host is a problem of the item, like that with a file.
bool ImageDraft::ReadSource(const SourceItem& item, uint64_t offset, std::span<unsigned char> out) {
  try {
    const ImageFile bytes(item.bytes, item.path);
    if (bytes.ReadAt(offset, out) == out.size()) return true;
    m_sourceProblem = kChanged;
  } catch (const ShortageError&) {
    m_observer.thrown = std::current_exception();
  } catch (const Error& error) {
    m_sourceProblem = error.Reason();
  } catch (...) {
    m_observer.thrown = std::current_exception();
  }
  return false;
}

// Called when the source is as it was: then the image may be what could not take the item.
void ImageDraft::ThrowIfFull(int error, uint64_t size) {
  const auto end = static_cast<uint64_t>(m_image.GetWriteOffset());
  if (MostBytes(size) + kPartitionTrailerSize > static_cast<uint64_t>(kMaxImageSize) - end) {
    Fail(ErrorKind::Unsupported,
         "image would be larger than " + std::to_string(kMaxImageSize) + " bytes");
  }
  if (!platform::CanGrow(m_temporary.Descriptor(), static_cast<int64_t>(end),
                         static_cast<int64_t>(MostBytes(size)))) {
    FailAs("write", errno);
  }
  if (error == EIO) FailAs("write", error);
}

bool ImageDraft::IsOwnFile(const platform::FileIdentity& identity) const {
  return identity == m_own || identity == m_old;
}

uint64_t ImageDraft::Complete(int* syncProblem) {
  {
    const ScopedLibraryState scope(m_state);
    errno = 0;
    if (m_image.CloseImageFile() != 0) FailAs("write", errno != 0 ? errno : EIO);
    m_open = false;
  }
  IndexWriter index(m_temporary.Descriptor(), m_name);
  index.SetKnownRestarts(&m_observer.restarts);
  index.SetLabels(m_labels);
  const IndexReport report = index.Write({.stop = m_observer.stop});
  if (const char* step = m_temporary.Publish(syncProblem)) FailAs(step, errno);
  return report.imageBytes;
}

void ImageDraft::CloseImage() {
  if (std::exchange(m_open, false)) m_image.CloseImageFileHandle();
}

void ImageDraft::ThrowIfCancelled() const {
  if (m_observer.stop.stop_requested()) Fail(ErrorKind::Cancelled, "cancelled");
}

void ImageDraft::Fail(ErrorKind kind, const std::string& reason) const {
  throw Error(kind, m_name, reason);
}

void ImageDraft::FailAs(const char* step, int error) const {
  ThrowSystemError(m_name, step, error);
}

}  // namespace capsule::host
