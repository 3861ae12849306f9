// A folder of sources to insert, seen as "C:" by a library state of the test's own.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>

#include "capsule/platform/host_view.h"
#include "capsule/state/library_state.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {

class SourceTree {
 public:
  SourceTree() : m_scope(m_state) {
    std::filesystem::create_directory(Root());
    m_state.hostView.SetRoot('C', Root());
    m_state.hostView.SetTimePolicy(platform::TimePolicy::ModificationOnly);
  }

  LibraryState& State() { return m_state; }
  std::string Root() const { return m_dir / "src"; }

  // The system's path of `name` below the root, and of a file beside the root.
  std::string Source(std::string_view name) const { return Root() + "/" + std::string(name); }
  std::string Beside(std::string_view name) const { return m_dir / name; }

  // What goes to InsertFile for `name`, whose separators are '/'.
  static std::string Inserted(std::string_view name) {
    std::string path = "C:/" + std::string(name);
    for (char& c : path) c = c == '/' ? '\\' : c;
    return path;
  }

  std::string AddFile(std::string_view name, std::string_view bytes) {
    std::filesystem::create_directories(std::filesystem::path(Source(name)).parent_path());
    WriteFile(Source(name), bytes);
    return Inserted(name);
  }

  std::string AddDirectory(std::string_view name) {
    std::filesystem::create_directories(Source(name));
    return Inserted(name);
  }

  // Access and modification time of `name`.
  void SetTime(std::string_view name, int64_t unixSeconds) {
    const timespec times[] = {{unixSeconds, 0}, {unixSeconds, 0}};
    ::utimensat(AT_FDCWD, Source(name).c_str(), times, 0);
  }

 private:
  TempDir m_dir;
  LibraryState m_state;
  ScopedLibraryState m_scope;
};

// Half text of few letters, half noise: compresses somewhat.
inline std::string MixedBytes(size_t count, uint32_t seed) {
  std::mt19937 random(seed);
  std::string bytes;
  while (bytes.size() < count) {
    const bool text = (bytes.size() / 300) % 2 == 0;
    bytes.push_back(static_cast<char>(text ? 'a' + random() % 4 : random() % 256));
  }
  return bytes;
}

}  // namespace capsule::test
