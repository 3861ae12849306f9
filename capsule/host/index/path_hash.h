// Hashes of paths that grow name by name: that of a folder's path is where those of its children go
// on, so the paths of a tree cost what its names cost. They tell damage, not malice.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace capsule::host {

inline constexpr uint64_t kRootPathHash = 0xCBF29CE484222325;

// Takes eight bytes at a time. Each step is one to one, so that no two names of the same length
// that differ in a single byte have the same hash.
inline uint64_t ChildPathHash(uint64_t folder, std::string_view name) {
  const auto mix = [](uint64_t hash, uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15;
    return hash ^ (hash >> 32);
  };
  uint64_t hash = folder;
  size_t at = 0;
  for (; name.size() - at > sizeof hash; at += sizeof hash) {
    uint64_t word = 0;
    std::memcpy(&word, name.data() + at, sizeof word);
    hash = mix(hash, word);
  }
  uint64_t rest = 0;
  std::memcpy(&rest, name.data() + at, name.size() - at);
  return mix(mix(hash, rest), name.size());
}

struct PathHashes {
  uint64_t folder = kRootPathHash;  // of all but the last name
  uint64_t path = kRootPathHash;
};

// The hashes of a path, a row of names with '/' between them; a path of no names is that of the
// root.
inline PathHashes HashesOfPath(std::string_view path, PathHashes hashes = {}) {
  while (!path.empty()) {
    const std::string_view name = path.substr(0, path.find('/'));
    hashes = {hashes.path, ChildPathHash(hashes.path, name)};
    path.remove_prefix(std::min(path.size(), name.size() + 1));
  }
  return hashes;
}

}  // namespace capsule::host
