// How the host's view of a file becomes a directory entry: attributes, times and size from the
// finder, the 8.3 name from the platform, long-name records where the two names differ.
#include <algorithm>
#include <memory>

#include "capsule/partition/directory_entry.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/ascii.h"
#include "capsule/platform/dos_time.h"
#include "capsule/platform/host_view.h"
#include "capsule/platform/out_of_memory.h"
#include "capsule/state/library_state.h"

namespace capsule {

namespace {

constexpr uint16_t kFirstCluster = 10;
constexpr unsigned char kLastPieceMark = 0x40;
constexpr size_t kShortNameSize = 11;

CString LastComponent(const CString& path) {
  size_t separator = path.rfind('\\');
  if (separator == CString::npos) separator = path.rfind('/');
  return separator == CString::npos ? path : path.substr(separator + 1);
}

void PadWithBlanks(CString& text, int32_t width) {
  text.resize(std::max(text.size(), static_cast<size_t>(width)), ' ');
}

template <size_t Count>
void CopyUpper(const CString& text, uint8_t (&field)[Count]) {
  for (size_t i = 0; i < Count; ++i) {
    field[i] = static_cast<uint8_t>(platform::UpperAscii(text.at(i)));
  }
}

// The first byte of a short name as it is stored.
unsigned char StoredFirstByte(unsigned char byte) { return byte == 0xE5 ? kStandsForE5 : byte; }

// The object at `path`, or at `path` without its last character: a separator at the end.
std::optional<platform::FindData> FindHostObject(const platform::HostView& view, CString path) {
  auto found = view.Find(path);
  if (found) return found;
  path.pop_back();
  return view.Find(path);
}

}  // namespace

int CapsuleDirectoryEntry::SetFileDirectory(DirectoryType t, const char* path, int fd, int offset,
                                            int* count) {
  if (path == nullptr) return SetZeroEntry(t);
  return platform::OrOutOfMemory(-1, [&] {
    m_strPath = path;
    if (m_strPath.size() < 2) return -1;
    const auto found = FindHostObject(CurrentLibraryState().hostView, m_strPath);
    if (!found || found->size > static_cast<uint64_t>(kMaxImageSize)) return -1;
    m_pFindData = std::make_unique<platform::FindData>(*found);
    if ((found->attributes & kDirectoryAttribute) != 0) m_nDirectoryFlag = kDirectoryAttribute;
    if (SetZeroDirEntry(fd, offset, count, m_nLastDirectoryEntry) != 0) return -1;
    SetMiniHeader();
    return SetDirEntry(t);
  });
}

int CapsuleDirectoryEntry::SetZeroEntry(DirectoryType t) {
  m_bZeroEntry = 1;
  SetMiniHeader();
  return SetDirEntry(t);
}

void CapsuleDirectoryEntry::SetMiniHeader() {
  m_Record.Header.Type = kRecordDirectory;
  m_Record.Header.Length = kDirEntrySize;
  if (m_nDirectoryFlag == kDirectoryAttribute || m_nLastDirectoryEntry == 0 ||
      m_nLastDirectoryEntry == 1) {
    m_Record.Header.Flag = 1;
    m_Record.Header.Param = 0;
  }
}

int CapsuleDirectoryEntry::SetDirEntry(DirectoryType t) {
  return platform::OrOutOfMemory(
      -1, [&] { return SetCapFileTimeAttrib(t) == 0 && SetCapFileName(t) == 0 ? 0 : -1; });
}

int CapsuleDirectoryEntry::SetCapFileTimeAttrib(DirectoryType t) {
  const bool fat16 = t == DirTypeFat16;
  const uint16_t cluster = fat16 ? 0 : kFirstCluster;
  _ShortDirEntry entry{};
  const platform::FindData told = m_pFindData ? *m_pFindData : platform::FindData{};
  if (m_bZeroEntry == 0) {
    const auto written = platform::ToDosDateTime(told.lastWriteTime);
    entry.WriteDate = written.date;
    entry.WriteTime = written.time;
    entry.Attribute = static_cast<uint8_t>(told.attributes);
    entry.FileSize = static_cast<uint32_t>(told.size);
  }
  if (m_bZeroEntry == 0 && !fat16) {
    const auto created = platform::ToDosDateTime(told.creationTime);
    entry.CreationDate = created.date;
    entry.CreationTime = created.time;
    entry.CreationSeconds = platform::LocalSeconds(told.creationTime);
    entry.LastAccessDate = platform::ToDosDateTime(told.lastAccessTime).date;
  }
  entry.FirstClusterHigh = cluster;
  entry.FirstClusterLow = cluster;

  _ShortDirEntry& stored = EntryFor(t);
  std::copy(std::begin(stored.Name), std::end(stored.Name), entry.Name);
  std::copy(std::begin(stored.Extension), std::end(stored.Extension), entry.Extension);
  stored = entry;
  return 0;
}

int CapsuleDirectoryEntry::SetCapFileName(DirectoryType t) {
  if (m_strPath.empty()) {
    SetCapShortFileName(t);
    return 0;
  }
  m_strExt.clear();
  GetFileName(m_strPath, m_strName, m_strExt);
  m_strLongName = LastComponent(m_strPath);
  if (m_strLongName.empty()) m_strLongName = m_strName;

  if (m_strPath.back() == '.') {
    m_strShortPath = m_strPath;
  } else {
    const auto shortPath = CurrentLibraryState().hostView.ShortPath(m_strPath);
    if (!shortPath) return -1;
    m_strShortPath = *shortPath;
  }
  m_strExt.clear();
  GetFileName(m_strShortPath, m_strName, m_strExt);
  m_strShortName = LastComponent(m_strShortPath);
  if (m_strShortName.empty()) m_strShortName = m_strName;

  CString checked = m_strName;
  checked.front() = static_cast<char>(StoredFirstByte(static_cast<unsigned char>(checked.front())));
  PadWithBlanks(checked, m_nNameChars);
  checked += m_strExt;
  PadWithBlanks(checked, m_nNameChars + m_nExtChars);
  m_nChecksum = _CalculateChecksum(platform::UpperAscii(checked).c_str());

  if (platform::EqualIgnoringCase(m_strLongName, m_strShortName)) {
    SetCapShortFileName(t);
    return 0;
  }
  if (SetCapLongFileName(t) == 0) return 0;
  RemoveCPtrArray();
  return -1;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the class interface takes it by value
int CapsuleDirectoryEntry::GetFileName(CString path, CString& name, CString& ext) {
  if (path.empty()) return 0;
  const CString component = LastComponent(path);
  const size_t dot = component.rfind('.');
  name = component.substr(0, dot);
  if (dot != CString::npos) ext = component.substr(dot + 1);
  if (name == ".") {
    name = "..";
  } else if (name.empty()) {
    name = ".";
  }
  return dot == CString::npos ? 0 : 1;
}

void CapsuleDirectoryEntry::SetCapShortFileName(DirectoryType t) {
  PadWithBlanks(m_strName, m_nNameChars);
  PadWithBlanks(m_strExt, m_nExtChars);
  _ShortDirEntry& entry = EntryFor(t);
  if (m_bZeroEntry != 0) {
    std::fill(std::begin(entry.Name), std::end(entry.Name), uint8_t{0});
    std::fill(std::begin(entry.Extension), std::end(entry.Extension), uint8_t{0});
  } else {
    CopyUpper(m_strName, entry.Name);
    entry.Name[0] = StoredFirstByte(entry.Name[0]);
    CopyUpper(m_strExt, entry.Extension);
  }
  m_bZeroEntry = 0;
}

int CapsuleDirectoryEntry::SetCapLongFileName(DirectoryType t) {
  CString name = m_strLongName;
  m_strExt.clear();
  GetFileName(m_strShortName, m_strName, m_strExt);
  SetCapShortFileName(t);

  const size_t perPiece = static_cast<size_t>(m_nLongEntryChars);
  const size_t rest = name.size() % perPiece;
  if (rest != 0) name.append(perPiece - rest, ' ');
  const size_t pieces = name.size() / perPiece;
  if (pieces > static_cast<size_t>(kMaxLongNamePieces)) return -1;

  m_LongEntries.clear();
  for (size_t k = pieces; k > 0; --k) {
    CString record;
    SetWideCharStr(record, name.substr(perPiece * (k - 1), perPiece), static_cast<int>(k),
                   static_cast<int>(pieces), static_cast<int>(rest));
    std::copy(record.begin(), record.end(), m_LongEntries.emplace_back().begin());
  }
  return 0;
}

void CapsuleDirectoryEntry::SetWideCharStr(CString& out, const CString& piece, int ordinal,
                                           int count, int rest) {
  const auto byte = [&out](int value) { out.push_back(static_cast<char>(value)); };
  const bool last = ordinal == count;
  out.clear();
  byte(last ? ordinal + kLastPieceMark : ordinal);
  for (int i = 0; i < static_cast<int>(kPieceUnits); ++i) {
    if (i == 5) {
      byte(kLongNameAttribute);
      byte(0);
      byte(m_nChecksum);
    }
    if (i == 11) out.append(2, '\0');
    if (rest < 1 || !last || i < rest) {
      out.push_back(static_cast<size_t>(i) < piece.size() ? piece[static_cast<size_t>(i)] : ' ');
      byte(0);
    } else {
      out.append(2, i == rest ? '\0' : '\xFF');
    }
  }
}

uint8_t CapsuleDirectoryEntry::_CalculateChecksum(const char* name) const {
  std::array<unsigned char, kShortNameSize> bytes;
  std::copy_n(name, kShortNameSize, bytes.begin());
  return ShortNameChecksum(bytes);
}

}  // namespace capsule
