// AliasCache remembers the 8.3 aliases of directories, so that each is listed once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>

#include "capsule/platform/host_files.h"
#include "capsule/platform/host_view.h"

namespace capsule::platform {

// Holds the directory last asked for and those above it, however large, since a walk in depth comes
// back to them; and of other directories, the last used ones within a budget. A directory that has
// changed since it was listed is listed again.
class AliasCache {
 public:
  static constexpr size_t kDefaultBudget = size_t{16} << 20;

  explicit AliasCache(size_t budgetBytes = kDefaultBudget) : m_budget(budgetBytes) {}

  // A change of policy empties the cache.
  void SetPolicy(AliasPolicy policy);

  // The alias of `name` in `directory`, a path of the system without "/" at its end. Null when it
  // has no such name or cannot be listed. Valid until the next call.
  const std::string* Find(const std::string& directory, const std::string& name);

  // How many directories have been listed so far.
  uint64_t Listings() const { return m_listings; }

  // About how many bytes the cache takes.
  size_t Bytes() const { return m_bytes; }

 private:
  struct Table {
    std::string directory;
    FileIdentity identity;
    Instant change;        // of the directory, before it was listed
    bool settled = false;  // a later change shows as another time
    size_t bytes = 0;
    std::unordered_map<std::string, std::string> aliases;
  };
  using Tables = std::list<Table>;  // last used first

  static const std::string* Lookup(const Table& table, const std::string& name);
  Table* Current(const std::string& directory);
  Table* List(const std::string& directory);
  void Forget(Tables::iterator table);
  void Evict(const std::string& inUse);

  size_t m_budget;
  AliasPolicy m_policy = AliasPolicy::Dos;
  Tables m_tables;
  std::unordered_map<std::string, Tables::iterator> m_byDirectory;
  size_t m_bytes = 0;
  uint64_t m_listings = 0;
};

}  // namespace capsule::platform
