#include "capsule/partition/directory_support.h"

#include <algorithm>
#include <memory>

namespace capsule {
namespace {

constexpr const char* kSeparators = "\\/";

}  // namespace

DirectorySupport::DirectorySupport(const char* path) : m_strPath(path == nullptr ? "" : path) {
  Parse();
}

DirectorySupport::~DirectorySupport() {
  while (void* segment = m_Segments.GetAt(0)) {
    m_Segments.RemoveAt(0);
    delete static_cast<CString*>(segment);
  }
}

void DirectorySupport::Parse() {
  size_t at = 0;
  if (m_strPath.size() >= 2 && m_strPath[1] == ':') {
    m_strDrive = m_strPath.substr(0, 1);
    at = 2;
  }
  while (at < m_strPath.size()) {
    const size_t end = std::min(m_strPath.find_first_of(kSeparators, at), m_strPath.size());
    auto segment = std::make_unique<CString>(m_strPath, at, end - at);
    m_Segments.Append(segment.get());
    static_cast<void>(segment.release());
    at = end + 1;
  }
}

const char* DirectorySupport::Drive() const {
  return m_strPath.empty() ? nullptr : m_strDrive.c_str();
}

CString* DirectorySupport::operator[](int i) const {
  return static_cast<CString*>(m_Segments.GetAt(i));
}

int DirectorySupport::NumberEntries() const { return m_Segments.GetCount(); }

int DirectorySupport::IsRoot() const { return NumberEntries() == 1 && (*this)[0]->empty() ? 1 : 0; }

}  // namespace capsule
