// ItemTree walks a partition that is put together of single items, in the order in which a folder
// that looks like it would be walked.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "capsule/host/build/source_walk.h"
#include "capsule/host/build_item.h"

namespace capsule::host {

class ItemTree : public ItemWalk {
 public:
  // `image`: what errors call the image. Throws Error when items do not fit together, or an image
  // cannot hold one. `filter`: of what lies in folders of the system.
  ItemTree(const std::string& image, const std::vector<BuildItem>& items, SourceWalk::Filter filter,
           Relief relief);

  bool Next(SourceItem* item) override;

 private:
  using Path = std::string;  // its segments, each with a zero byte behind it
  struct Folder {
    platform::FileStatus status;
    std::unordered_map<std::string, std::string> aliases;
  };

  void Put(const BuildItem& item);
  void NameAll();
  void OpenSystemItem(const BuildItem& from, SourceItem* item);
  bool NextBelow(SourceItem* item);

  std::string m_image;
  SourceWalk::Filter m_filter;
  Relief m_relief;
  std::map<Path, BuildItem> m_items;  // folders that are only implied, too
  std::map<Path, BuildItem>::const_iterator m_next;
  std::map<Path, Folder> m_folders;
  std::string m_below;               // where in the image m_walk is, with a '/' behind
  std::optional<SourceWalk> m_walk;  // in a folder of the system
};

}  // namespace capsule::host
