// The path of the folder that a walk over a section is in.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "capsule/partition/entry_group.h"

namespace capsule::host {

class OpenFolders {
 public:
  void Clear() {
    m_path.clear();
    m_starts.clear();
  }

  void Enter(const std::string& name) {
    m_starts.push_back(m_path.size());
    if (!m_path.empty()) m_path += '/';
    m_path += name;
  }

  // Goes on behind an entry of that name.
  void Pass(EntryRole role, const std::string& name) {
    if (role == EntryRole::Closing) Leave();
    if (role == EntryRole::Folder) Enter(name);
  }

  // Leaves the innermost folder, if there is one.
  void Leave() {
    if (m_starts.empty()) return;
    m_path.resize(m_starts.back());
    m_starts.pop_back();
  }

  void LeaveTo(size_t depth) {
    while (m_starts.size() > depth) Leave();
  }

  size_t Depth() const { return m_starts.size(); }

  // Names with '/' between, empty at the top level.
  const std::string& Path() const { return m_path; }

  // That of an item of the folder.
  std::string PathOf(const std::string& name) const {
    return m_path.empty() ? name : m_path + '/' + name;
  }

 private:
  std::string m_path;
  std::vector<size_t> m_starts;  // length of the path before each folder
};

}  // namespace capsule::host
