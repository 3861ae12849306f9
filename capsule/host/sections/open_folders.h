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
    m_strPath.clear();
    m_Starts.clear();
  }

  void Enter(const std::string& name) {
    m_Starts.push_back(m_strPath.size());
    if (!m_strPath.empty()) m_strPath += '/';
    m_strPath += name;
  }

  // Goes on behind an entry of that name.
  void Pass(EntryRole role, const std::string& name) {
    if (role == EntryRole::Closing) Leave();
    if (role == EntryRole::Folder) Enter(name);
  }

  // Leaves the innermost folder, if there is one.
  void Leave() {
    if (m_Starts.empty()) return;
    m_strPath.resize(m_Starts.back());
    m_Starts.pop_back();
  }

  void LeaveTo(size_t depth) {
    while (m_Starts.size() > depth) Leave();
  }

  size_t Depth() const { return m_Starts.size(); }

  // Names with '/' between, empty at the top level.
  const std::string& Path() const { return m_strPath; }

  // That of an item of the folder.
  std::string PathOf(const std::string& name) const {
    return m_strPath.empty() ? name : m_strPath + '/' + name;
  }

 private:
  std::string m_strPath;
  std::vector<size_t> m_Starts;  // length of the path before each folder
};

}  // namespace capsule::host
