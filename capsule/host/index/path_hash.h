// Hashes of paths that grow name by name: that of a folder's path is where those of its children go
// on, so the paths of a tree cost what its names cost. They tell damage, not malice.
#pragma once

#include <cstdint>
#include <string_view>

namespace capsule::host {

inline constexpr uint64_t kRootPathHash = 0xCBF29CE484222325;

// FNV-1a: no two texts that differ in a single byte have the same hash.
inline uint64_t ExtendPathHash(uint64_t hash, std::string_view text) {
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  }
  return hash;
}

// The hash of `name` in the folder of hash `folder`.
inline uint64_t ChildPathHash(uint64_t folder, std::string_view name) {
  return ExtendPathHash(folder == kRootPathHash ? folder : ExtendPathHash(folder, "/"), name);
}

}  // namespace capsule::host
