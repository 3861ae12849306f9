// A directory of a test's own, gone with everything below it at the end of the scope.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace capsule::test {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "capsule-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
    m_path = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir& operator=(TempDir&&) = delete;

  const std::filesystem::path& Path() const { return m_path; }
  std::string operator/(std::string_view name) const { return (m_path / name).string(); }

 private:
  std::filesystem::path m_path;
};

inline void WriteFile(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const auto size = static_cast<std::streamoff>(file.tellg());
  std::string bytes(size > 0 ? static_cast<size_t>(size) : 0, '\0');
  file.seekg(0).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<size_t>(file.gcount()));
  return bytes;
}

}  // namespace capsule::test
