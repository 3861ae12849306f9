// 1. m_tables and m_byDirectory hold the same directories; m_bytes is the sum over the tables.
// 2. A table answers only while its directory is the same one and bears the time of change that it
//    bore before it was listed. Times advance in ticks, so a table listed within a tick of that
//    time is not settled: a change could leave the time as it is. It is listed anew with every
//    question until the tick is over; that costs one more listing of a large directory, and a tick
//    at most over all listings of a small one.
// 3. File systems whose clock is not ours, or whose times are coarse, may hide a change from 2. A
//    name that is there but not in the table shows it.
#include "capsule/platform/alias_cache.h"

#include <cstdlib>
#include <optional>
#include <utility>
#include <vector>

#include "capsule/platform/short_names.h"

namespace capsule::platform {
namespace {

constexpr int64_t kTickNanoseconds = 20'000'000;  // twice the longest tick of common kernels

// Nodes of the map, two string objects and allocation overhead.
constexpr size_t kBytesPerAlias = 128;

bool WithinATick(Instant a, Instant b) {
  if (a.seconds > b.seconds + 1 || b.seconds > a.seconds + 1) return false;
  const int64_t nanoseconds =
      (a.seconds - b.seconds) * 1'000'000'000 + a.nanoseconds - b.nanoseconds;
  return std::abs(nanoseconds) <= kTickNanoseconds;
}

// "/a/b" gives "/a", then "/"; "a/b" gives "a", then ".".
bool GoUp(std::string& directory) {
  if (directory == "/" || directory == ".") return false;
  const size_t slash = directory.rfind('/');
  if (slash == std::string::npos) {
    directory = ".";
  } else {
    directory.resize(slash == 0 ? 1 : slash);
  }
  return true;
}

}  // namespace

const std::string* AliasCache::Lookup(const Table& table, const std::string& name) {
  const auto alias = table.aliases.find(name);
  return alias == table.aliases.end() ? nullptr : &alias->second;
}

void AliasCache::SetPolicy(AliasPolicy policy) {
  if (policy == m_policy) return;
  m_policy = policy;
  m_byDirectory.clear();
  m_tables.clear();
  m_bytes = 0;
}

const std::string* AliasCache::Find(const std::string& directory, const std::string& name) {
  const uint64_t listingsBefore = m_listings;
  Table* table = Current(directory);
  const std::string* alias = table == nullptr ? nullptr : Lookup(*table, name);
  if (alias != nullptr || table == nullptr || m_listings != listingsBefore) return alias;
  if (!Exists(directory + "/" + name)) return nullptr;
  Forget(m_tables.begin());
  table = List(directory);
  return table == nullptr ? nullptr : Lookup(*table, name);
}

AliasCache::Table* AliasCache::Current(const std::string& directory) {
  const auto known = m_byDirectory.find(directory);
  if (known == m_byDirectory.end()) return List(directory);
  const auto table = known->second;
  const std::optional<FileStatus> status = Status(directory);
  if (table->settled && status && status->identity == table->identity &&
      status->change == table->change) {
    m_tables.splice(m_tables.begin(), m_tables, table);
    return &*table;
  }
  Forget(table);
  return List(directory);
}

AliasCache::Table* AliasCache::List(const std::string& directory) {
  Table table;
  const Instant now = ClockOfFiles();
  const std::optional<FileStatus> status = Status(directory);
  if (!status) return nullptr;
  std::optional<std::vector<std::string>> names = ListDirectory(directory);
  if (!names) return nullptr;
  ++m_listings;

  table.directory = directory;
  table.identity = status->identity;
  table.change = status->change;
  table.settled = !WithinATick(now, status->change);
  table.bytes = sizeof(Table) + 2 * directory.size();
  for (const std::string& name : *names) table.bytes += name.size() + kBytesPerAlias;
  table.aliases = MakeAliases(std::move(*names), m_policy);

  m_tables.push_front(std::move(table));
  m_byDirectory.emplace(directory, m_tables.begin());
  m_bytes += m_tables.front().bytes;
  Evict(directory);
  return &m_tables.front();
}

void AliasCache::Forget(Tables::iterator table) {
  m_bytes -= table->bytes;
  m_byDirectory.erase(table->directory);
  m_tables.erase(table);
}

void AliasCache::Evict(const std::string& inUse) {
  // The directories to keep go to the front, where eviction from the back meets them last.
  size_t kept = 1;
  for (std::string above = inUse; GoUp(above);) {
    const auto known = m_byDirectory.find(above);
    if (known == m_byDirectory.end()) continue;
    m_tables.splice(std::next(m_tables.begin()), m_tables, known->second);
    ++kept;
  }
  while (m_bytes > m_budget && m_tables.size() > kept) Forget(std::prev(m_tables.end()));
}

}  // namespace capsule::platform
