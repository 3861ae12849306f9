// Inserting one item: which levels end before it, which partition it belongs to, how it is stored.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "capsule/compression/stream_compressor.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/header_format.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/ascii.h"
#include "capsule/platform/file.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/platform/scoped_descriptor.h"
#include "capsule/platform/trace_file.h"
#include "capsule/runtime/list_node.h"
#include "capsule/state/library_state.h"

namespace capsule {

namespace {

constexpr std::string_view kTracePath = "c:\\testdump.txt";
constexpr char kSkipMark = '?';
constexpr size_t kExtensionLength = 4;
constexpr uint32_t kSectorSize = 512;
constexpr std::array<std::string_view, 14> kKnownCompressed = {
    ".ZIP", ".CAB", ".JPG", ".GIF", ".TAR", ".TGZ", ".ICE",
    ".LZH", ".ARC", ".ARJ", ".PAK", ".QIC", ".IMC", ".AVI"};

// Only for a host that registered a root for the letter of the trace file.
void TraceInsertion(const LibraryState& state, const char* path) {
  const auto resolved = state.hostView.Resolve(kTracePath);
  if (!resolved) return;
  std::FILE* trace = platform::OpenTraceFile(resolved->c_str(), platform::TraceStart::AtEnd);
  if (trace == nullptr) return;
  static_cast<void>(std::fprintf(trace, "%s\nPrev-%s\n", path, state.previousInsertDir.c_str()));
  static_cast<void>(std::fclose(trace));
}

// The length of the file at `path`; none when it cannot be opened or has 2 GiB or more.
std::optional<uint32_t> SourceLength(const platform::HostView& view, const CString& path) {
  const platform::ScopedDescriptor file = view.OpenFile(path.c_str());
  const int64_t length = file ? platform::FileLength(file.Get()) : -1;
  if (length < 0 || length > kMaxImageSize) return std::nullopt;
  return static_cast<uint32_t>(length);
}

bool IsDirectory(const platform::FindData& found) {
  return (found.attributes & platform::kAttributeDirectory) != 0;
}

// What lies in the item, or what the item lies in; none for a file without a directory.
std::optional<CString> DirectoryOf(const CString& path, bool isDirectory) {
  if (isDirectory) return path;
  const size_t separator = path.find_last_of("\\/");
  if (separator == CString::npos) return std::nullopt;
  return path.substr(0, separator);
}

// A list of path segments, released at the end of the scope.
struct SegmentList {
  _ListNode* head = nullptr;
  SegmentList() = default;
  ~SegmentList() { FreeList(&head, true); }
  SegmentList(const SegmentList&) = delete;
  SegmentList& operator=(const SegmentList&) = delete;
};

}  // namespace

int CapsuleFile::InsertFile(const char* path, int partition) {
  if (path == nullptr) return -1;
  return platform::OrOutOfMemory(-1, [&] {
    TraceInsertion(CurrentLibraryState(), path);
    const CString trimmed(platform::TrimRight(path));
    if (!trimmed.empty() && trimmed.back() == kSkipMark) return 0;
    return AllOrNothing([&] { return Insert(path, trimmed, partition); });
  });
}

int CapsuleFile::BeginPartition(int partition) {
  return AllOrNothing([&] { return SwitchPartition(partition); });
}

template <typename Step>
int CapsuleFile::AllOrNothing(Step step) {
  const InsertionStart start{platform::FileLength(m_hImageFile), m_nWriteOffset,
                             m_nCurrentPartition, m_pCurrentPartition};
  try {
    if (step() == 0) {
      m_OpenItem.path.clear();
      return 0;
    }
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
  const int reason = errno;
  RollBack(start);
  errno = reason;
  return -1;
}

int CapsuleFile::Insert(const CString& path, const CString& trimmed, int partition) {
  LibraryState& state = CurrentLibraryState();
  auto found = state.hostView.Find(path);
  const bool isDirectory = found && IsDirectory(*found);
  if (!isDirectory) {
    const auto length = SourceLength(state.hostView, path);
    if (!length) return -1;
    m_nSectorCount += *length / kSectorSize + 1;
  }
  if (SwitchPartition(partition) != 0) return -1;
  state.compressor->ResetCompressionHistory();
  if (m_pCurrentPartition->InitializeCompressionHistory() != 0) return -1;

  const auto directory = DirectoryOf(trimmed, isDirectory);
  const int levels = directory ? LevelsToClose(*directory) : -1;
  if (levels < 0) return -1;
  state.dirLevelsToClose = levels;
  state.previousInsertDir = *directory;

  if (trimmed != path) found = state.hostView.Find(trimmed);
  if (!found) return -1;
  return WriteItem(trimmed, IsDirectory(*found));
}

int CapsuleFile::SwitchPartition(int partition) {
  if (partition < m_nCurrentPartition || partition < 0 || partition >= kMaxPartitions) return -1;
  if (partition == m_nCurrentPartition) return 0;
  if (m_nWriteOffset < static_cast<int>(kHeaderSize)) return -1;
  if (m_nCurrentPartition != -1) {
    if (m_pCurrentPartition->WritePartitionTrailer(m_hImageFile, m_nWriteOffset) != 0) return -1;
    if (!Advance(&m_nWriteOffset, kPartitionTrailerSize)) return -1;
  }
  auto opened = std::make_unique<CapsulePartition>(*this);
  if (opened->InitializePartHeaderInfo() != 0 ||
      opened->WritePartitionHeader(m_hImageFile, m_nWriteOffset) != 0) {
    return -1;
  }
  m_Partitions.Append(opened.get());
  m_pCurrentPartition = opened.release();
  m_nCurrentPartition = partition;
  return Advance(&m_nWriteOffset, kPartitionHeaderSize) ? 0 : -1;
}

// Between the directory of the insertion before and this one; -1 without memory.
int CapsuleFile::LevelsToClose(const CString& directory) {
  const CString& before = CurrentLibraryState().previousInsertDir;
  if (before == directory) return 0;
  SegmentList previous;
  SegmentList current;
  if (_BuildPathSegmentList(&previous.head, before) != 0 ||
      _BuildPathSegmentList(&current.head, directory) != 0) {
    return -1;
  }
  return _ContrastPathSegmentLists(previous.head, current.head);
}

int CapsuleFile::BeginItem(const char* path, bool isDirectory, int* zeroEntries) {
  const bool isPossible = m_hImageFile != 0 && m_pCurrentPartition != nullptr;
  if (!isPossible || path == nullptr || *path == '\0' || zeroEntries == nullptr) return -1;
  return platform::OrOutOfMemory(-1, [&] {
    const auto directory = DirectoryOf(path, isDirectory);
    const int levels = directory ? LevelsToClose(*directory) : -1;
    if (levels < 0) return -1;
    m_OpenItem = {path, *directory, isDirectory};
    *zeroEntries = levels;
    return 0;
  });
}

int CapsuleFile::EndItem(int64_t bytes, uint32_t sourceLength) {
  if (m_hImageFile == 0 || m_OpenItem.path.empty() || !HasRoomFor(bytes)) return -1;
  const int levels = CapsulePartition::HierarchyLevelOf(m_OpenItem.path.c_str());
  const int64_t closing = m_OpenItem.isDirectory ? int64_t{levels} * kDirRecordSize : 0;
  if (!FitsImage(int64_t{m_nWriteOffset} + bytes, closing)) return -1;
  const OpenItem item = std::exchange(m_OpenItem, {});
  return platform::OrOutOfMemory(-1, [&] {
    CurrentLibraryState().previousInsertDir = item.directory;
    CurrentLibraryState().dirLevelsToClose = 0;
    if (item.isDirectory) m_pCurrentPartition->SetHierarchyLevel(item.path.c_str());
    if (!item.isDirectory) m_nSectorCount += sourceLength / kSectorSize + 1;
    return Advance(&m_nWriteOffset, bytes) ? 0 : -1;
  });
}

bool CapsuleFile::HasRoomFor(int64_t bytes) const {
  const int levels = m_pCurrentPartition == nullptr ? 0 : m_pCurrentPartition->GetHierarchyLevel();
  return FitsImage(0, bytes) &&
         FitsImage(int64_t{m_nWriteOffset} + bytes, int64_t{levels} * kDirRecordSize);
}

int CapsuleFile::WriteItem(const CString& path, bool directory) {
  int written = 0;
  int levels = m_pCurrentPartition->GetHierarchyLevel();
  if (directory) {
    levels = CapsulePartition::HierarchyLevelOf(path.c_str());
    const int result =
        m_pCurrentPartition->WriteDirectories(m_hImageFile, path.c_str(), m_nWriteOffset, &written);
    if (result != 0) return -1;
  } else {
    const int level = IsStoredByName(path) ? 0 : m_nCompressionLevel;
    const int result =
        m_pCurrentPartition->WriteFile(m_hImageFile, path.c_str(), m_nWriteOffset, &written, level);
    if (result != 0) return -1;
  }
  // What closes the levels must fit, too, or the image could never be closed.
  if (!FitsImage(int64_t{m_nWriteOffset} + written, int64_t{levels} * kDirRecordSize)) return -1;
  if (directory) m_pCurrentPartition->SetHierarchyLevel(path.c_str());
  return Advance(&m_nWriteOffset, written) ? 0 : -1;
}

// Takes back a partition that the failed insertion opened, and the bytes that it added to a file
// that ended at the write offset. In a longer file the next insertion overwrites them.
void CapsuleFile::RollBack(const InsertionStart& start) {
  if (m_pCurrentPartition != start.current) {
    m_Partitions.RemoveAt(m_Partitions.GetCount() - 1);
    delete m_pCurrentPartition;
  }
  m_pCurrentPartition = start.current;
  m_nCurrentPartition = start.partition;
  m_nWriteOffset = start.writeOffset;
  const bool endedThere = start.fileLength >= 0 && start.fileLength <= m_nWriteOffset;
  if (endedThere && platform::FileLength(m_hImageFile) > m_nWriteOffset) {
    platform::Truncate(m_hImageFile, m_nWriteOffset);
  }
}

bool CapsuleFile::IsStoredByName(const std::string& path) {
  if (path.size() <= kExtensionLength) return false;
  CString extension = path.substr(path.size() - kExtensionLength);
  return _IsKnownCompressed(extension) != 0;
}

int CapsuleFile::_IsKnownCompressed(CString& extension) {
  extension = platform::UpperAscii(extension);
  const auto* known = std::find(kKnownCompressed.begin(), kKnownCompressed.end(), extension);
  return known != kKnownCompressed.end() ? 1 : 0;
}

uint32_t CapsuleFile::_BuildPathSegmentList(_ListNode** head, const CString& path) {
  // Appending at the list's own end: walking to it for each segment would cost the square of them.
  _ListNode** listEnd = head;
  for (size_t begin = 0; begin < path.size();) {
    const size_t end = std::min(path.find_first_of("\\/", begin), path.size());
    auto segment = std::make_unique<CString>(path, begin, end - begin);
    while (*listEnd != nullptr) listEnd = &(*listEnd)->next;
    if (const uint32_t problem = AppendListNode(listEnd, segment.get()); problem != 0) {
      FreeList(head, true);
      return problem;
    }
    static_cast<void>(segment.release());
    begin = end + 1;
  }
  return 0;
}

int CapsuleFile::_ContrastPathSegmentLists(_ListNode* previous, _ListNode* current) {
  int levels = 0;
  for (const _ListNode* node = previous; node != nullptr; node = node->next) ++levels;
  while (previous != nullptr && current != nullptr && *previous->data == *current->data) {
    previous = previous->next;
    current = current->next;
    --levels;
  }
  return levels;
}

int CapsuleFile::_RemoveLastDirFromPathString(CString& path) {
  size_t separator = path.rfind('\\');
  if (separator == CString::npos) separator = path.rfind('/');
  if (separator == CString::npos) return -1;
  path.resize(separator);
  return 0;
}

}  // namespace capsule
