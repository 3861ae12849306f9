// SourceWalk steps through a folder of the system in depth, names in byte order, following no link.
//
//   SourceWalk walk("/home/me/photos", filter);
//   SourceItem item;
//   while (walk.Next(&item)) ...
//
// Every item is opened once, from the descriptor of its folder, and then looked at: what becomes of
// its path meanwhile, a link say, changes nothing. A folder is listed when it is handed out and its
// items come right behind it, so memory is bounded by the names of the folders that are open, and
// paths may be longer than the system takes. Running out of memory or descriptors ends a walk with
// Error. One thread uses a walk.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "capsule/host/byte_source.h"
#include "capsule/platform/host_files.h"
#include "capsule/platform/scoped_descriptor.h"

namespace capsule::host {

struct SourceItem {
  enum class Kind {
    File,
    Folder,
    Special,     // a link, a device and the like
    Excluded,    // by the filter
    Unfinished,  // of this library: an image or file in the making, or left by a killed run
    Unreadable,  // or of a name an image cannot hold: `reason` says it
  };

  Kind kind = Kind::File;
  std::string path;      // of the system
  std::string relative;  // to the walk's root, '/' between segments
  platform::FileStatus status;
  platform::FileStamp stamp;                // of a file when it was opened
  platform::FileStatus folder;              // of the folder that it lies in
  std::string alias;                        // its 8.3 name
  platform::ScopedDescriptor file;          // open for reading, when it is one of the system
  std::shared_ptr<const ByteSource> bytes;  // of a file that is none
  std::optional<uint8_t> attributes;        // instead of those that `status` gives
  std::string reason;
};

// What hands out items: a folder and then all that is in it.
class ItemWalk {
 public:
  virtual ~ItemWalk() = default;

  // The next item; false behind the last.
  virtual bool Next(SourceItem* item) = 0;
};

// Why an image cannot hold an item of this name; null when it can.
const char* NameProblem(std::string_view name);

// Gives descriptors back where they have run out; whether there were any to give.
using Relief = std::function<bool()>;

// Calls `open` once more where it had no descriptor and some were given back.
template <typename Open>
auto WithRelief(const Relief& relief, Open open) {
  auto opened = open();
  const bool isShort = !opened && (errno == EMFILE || errno == ENFILE);
  if (!isShort) return opened;
  const int reason = errno;
  if (relief && relief()) return open();
  errno = reason;
  return opened;
}

class SourceWalk : public ItemWalk {
 public:
  // Whether an item is left out, by name and by path below the root.
  using Filter = std::function<bool(const std::string& name, const std::string& relative)>;

  // Throws Error when `root` cannot be listed.
  SourceWalk(std::string root, Filter filter, Relief relief = {});

  bool Next(SourceItem* item) override;

 private:
  struct Frame {
    // None in a folder that the walk is below of at great depth, and can go back to by "..", or
    // cannot any more.
    platform::ScopedDescriptor folder;
    platform::FileStatus status;
    std::vector<platform::ListedItem> items;  // names in byte order from the end on
    std::unordered_map<std::string, std::string> aliases;
    size_t pathLength = 0;  // of m_relative before this folder's name
  };

  void Examine(const platform::ListedItem& listed, SourceItem* item);
  void OpenFile(const std::string& name, SourceItem* item);
  platform::ScopedDescriptor OpenFolder(const platform::ScopedDescriptor& from,
                                        const char* name) const;
  void Look(const std::string& name, SourceItem* item) const;
  void LeaveOut(const std::string& name, std::string reason, SourceItem* item) const;
  void LeaveOutFailed(const std::string& name, int error, SourceItem* item) const;
  void Enter(const std::string& name, SourceItem* item);
  bool Push(platform::ScopedDescriptor folder, const platform::FileStatus& status);
  void CloseAbove();
  void Leave();
  bool IsAbove(const platform::ScopedDescriptor& above, const Frame& frame) const;

  std::string m_root;
  Filter m_filter;
  Relief m_relief;
  std::vector<Frame> m_frames;
  std::string m_relative;  // the open folder
};

}  // namespace capsule::host
