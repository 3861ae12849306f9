// Entry is one file or folder of an open image, or the root of one of its partitions.
//
// An Entry is a light handle, copied freely and valid as long as the Image it came from. Const
// operations may be used from many threads.
//
//   for (const host::Entry& entry : image.Root(0).Children()) Show(entry.Name(), entry.Size());
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "capsule/export.h"

namespace capsule::host {

class Catalog;
class EntryRange;

class CAPSULE_API Entry {
 public:
  // An entry of no image: it can be assigned and compared, all else throws host::Error.
  Entry() = default;

  // The long name, else the short one, byte for byte as stored; empty for a root. Names come from
  // the image as they are: they may hold any byte, '/' included.
  std::string_view Name() const;

  // The 8.3 name, without padding.
  std::string_view ShortName() const;

  // "N:/folder/name", N being the partition; "N:/" for a root.
  std::string Path() const;

  int Partition() const;
  bool IsRoot() const;
  bool IsDirectory() const;
  bool IsReadOnly() const;
  bool IsHidden() const;

  // DOS attributes: 0x01 read-only, 0x02 hidden, 0x04 system, 0x10 directory, 0x20 archive.
  uint8_t Attributes() const;

  // The size in bytes; 0 for directories.
  uint32_t Size() const;

  // The time of modification in seconds after 1970, always an even number; none when the image has
  // no date for it.
  std::optional<int64_t> ModifiedTime() const;

  // Where its records begin in the image; 0 for a root.
  uint32_t Offset() const;

  // Whether an earlier entry of the same folder has exactly the same name. Look-up finds the
  // earlier one, and extraction leaves this one out.
  bool IsDuplicate() const;

  // The folder it lies in; a root is its own parent.
  Entry Parent() const;

  // What lies in the folder, in image order; empty for a file.
  EntryRange Children() const;

  bool operator==(const Entry&) const = default;

 private:
  friend class Catalog;
  friend class EntryRange;
  friend class Extractor;
  friend class Image;
  Entry(const Catalog* catalog, uint32_t id) : m_catalog(catalog), m_id(id) {}

  const Catalog* m_catalog = nullptr;
  uint32_t m_id = 0;
};

class CAPSULE_API EntryRange {
 public:
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = const Entry*;
    using reference = Entry;

    Iterator() = default;
    Iterator(const Catalog* catalog, uint32_t id) : m_catalog(catalog), m_id(id) {}
    Entry operator*() const { return Entry(m_catalog, m_id); }
    Iterator& operator++() {
      m_id = After(*m_catalog, m_id);
      return *this;
    }
    Iterator operator++(int) {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator&) const = default;

   private:
    const Catalog* m_catalog = nullptr;
    uint32_t m_id = 0;
  };

  EntryRange(const Catalog* catalog, uint32_t first, uint32_t count)
      : m_catalog(catalog), m_first(first), m_count(count) {}
  Iterator begin() const { return {m_catalog, m_first}; }
  Iterator end() const { return {m_catalog, kNone}; }
  size_t size() const { return m_count; }
  bool empty() const { return m_count == 0; }

  // For iterators: the number of the entry behind number `id` of `catalog`.
  static uint32_t After(const Catalog& catalog, uint32_t id);

 private:
  static constexpr uint32_t kNone = 0xFFFFFFFF;  // behind the last one

  const Catalog* m_catalog;
  uint32_t m_first;
  uint32_t m_count;
};

}  // namespace capsule::host
