// HostView is how the library sees the files it inserts: which directory a drive letter stands for,
// what a file's attributes, times and size are in DOS terms, and which 8.3 alias it has.
//
// Paths are 8-bit strings in which `\` and `/` both separate. "X:" in front (any one character,
// compared exactly) names a root registered with SetRoot; an unregistered one is not found. Below a
// root, "." and ".." are resolved by the text alone, and ".." of the root is the root itself: what
// a path leads to does not depend on where the root lies. A path without a letter is resolved by
// the system as it stands.
//
//   HostView view;
//   view.SetRoot('0', "/home/me/photos");
//   view.Find("0:\\2024\\a long name.jpg")->size;      // of /home/me/photos/2024/a long name.jpg
//   view.ShortPath("0:\\2024\\a long name.jpg");       // "0:\\2024\\A_LONG~1.JPG"
//
// One thread uses a view at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace capsule::platform {

class ScopedDescriptor;
struct OpenedItem;

// Count of 100 ns since 1601-01-01 00:00 UTC.
using FileTime = uint64_t;

inline constexpr uint32_t kAttributeReadOnly = 0x01;
inline constexpr uint32_t kAttributeHidden = 0x02;
inline constexpr uint32_t kAttributeDirectory = 0x10;
inline constexpr uint32_t kAttributeArchive = 0x20;

// What the finder tells of one file or directory. The size of a directory is 0.
struct FindData {
  uint32_t attributes = 0;
  FileTime creationTime = 0;
  FileTime lastAccessTime = 0;
  FileTime lastWriteTime = 0;
  uint64_t size = 0;
};

// Dos: a name that is 8.3 ignoring case is its own alias. Exact: a name that upper-casing would
// change gets a numeric tail, so that its spelling is kept in long-name records.
enum class AliasPolicy { Dos, Exact };

// System: birth time (else modification), access and modification time as the file system has
// them. ModificationOnly: all three are the modification time.
enum class TimePolicy { System, ModificationOnly };

class HostView {
 public:
  HostView();
  ~HostView();
  HostView(const HostView&) = delete;
  HostView& operator=(const HostView&) = delete;

  // Registers `directory`, a path of the system, for `letter`, in place of an earlier one; an empty
  // one takes the letter back. A relative path is taken from the working directory at each use.
  void SetRoot(char letter, const std::string& directory);

  void SetAliasPolicy(AliasPolicy policy);  // Dos unless set
  void SetTimePolicy(TimePolicy policy);    // System unless set

  // No time is reported later than this many seconds after 1970.
  void CapTimes(int64_t unixSeconds);

  // While there is an opened item, that one and its "." and ".." are all that is found, as it was
  // when it was opened, and no path is looked up. Borrowed; null goes back to the paths.
  void SetOpenedItem(const OpenedItem* item);

  // The file at `path`, for reading: borrowed from the opened item, if there is one. Nothing for a
  // null path and on failure.
  ScopedDescriptor OpenFile(const char* path) const;

  // The system's path for `path`; none when its root is not registered or it holds a zero byte.
  std::optional<std::string> Resolve(std::string_view path) const;

  // Follows links. None when nothing is found. Read-only means that no write permission is set,
  // whoever it is for; hidden, that the last component begins with a dot and is not "." or "..";
  // everything but a directory is archive.
  std::optional<FindData> Find(std::string_view path) const;

  // `path` with its last component replaced by that component's 8.3 alias. "." and ".." are their
  // own aliases. None when nothing of that name is in its directory, or the directory cannot be
  // listed. A directory is listed once and remembered: always while a walk is inside it or below,
  // else among those last used, within 16 MiB. It is listed again once it has changed, and all its
  // aliases are then decided anew.
  std::optional<std::string> ShortPath(std::string_view path);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace capsule::platform
