// DamageSeed is a whole image that is to be damaged: what its files hold, and what damage touches.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "capsule/host/image.h"
#include "capsule/host/sections/section_scanner.h"

namespace capsule::test {

using Contents = std::map<std::string, std::string>;  // by path

inline constexpr char kUnread[] = "<cannot be read>";

// The files of an image; of several with the same path the first. What cannot be read is kUnread.
Contents ReadContents(const host::Image& image);

class DamageSeed {
 public:
  // `path`: an image with an index.
  explicit DamageSeed(const std::string& path);

  const std::string& Bytes() const { return m_bytes; }
  const Contents& Whole() const { return m_contents; }
  bool IsChecked() const { return m_checked; }  // its index has a check value
  size_t IndexOffset() const { return m_indexOffset; }
  const std::vector<host::SectionItem>& Items() const { return m_items; }

  // The files whose own records, and whose folders' records, lie outside [from, to).
  std::set<std::string> Untouched(size_t from, size_t to) const;

 private:
  std::string m_bytes;
  bool m_checked = false;
  size_t m_indexOffset = 0;
  Contents m_contents;
  std::vector<host::SectionItem> m_items;
};

}  // namespace capsule::test
