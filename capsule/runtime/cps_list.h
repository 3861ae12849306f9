// CpsList is the collection of the library: pointers in order, with a lock of its own.
//
//   CpsList& blocks = file.GetPartitions();
//   for (int i = 0; i < blocks.GetCount(); ++i) Use(blocks.GetAt(i));
//
// It does not own what its elements point to: an owner that goes empties its list by taking element
// 0, destroying the object and removing element 0. Each operation takes the lock for itself alone,
// so another thread may append during a walk by index; Lock and Unlock (the lock is recursive)
// bracket several operations. Element i and removing the first element cost constant time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "capsule/export.h"

namespace capsule {

class CAPSULE_API CpsList {
 public:
  CpsList() = default;
  virtual ~CpsList() = default;
  CpsList(const CpsList&) = delete;
  CpsList& operator=(const CpsList&) = delete;

  int GetCount() const;

  // The pointer at position `index`, or null when there is none.
  void* GetAt(int index) const;

  void Append(void* element);

  // Unlinks the element at `index`; nothing happens when there is none.
  void RemoveAt(int index);

  // How often the list was changed: differs from an earlier value when it was since then.
  uint64_t Changes() const;

  // Unlock belongs to a Lock of the same thread.
  void Lock() const;
  void Unlock() const;

 private:
  mutable std::recursive_mutex m_Lock;
  std::vector<void*> m_Elements;
  size_t m_nFirst = 0;  // elements before this one have been removed
  uint64_t m_nChanges = 0;
};

}  // namespace capsule
