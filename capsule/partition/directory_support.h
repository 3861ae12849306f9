// DirectorySupport splits a path into a one-character drive part and its segments.
//
// `\` and `/` separate. A separator at the start or two in a row give an empty segment, one at the
// end gives none: "0:\A\B" has the drive "0" and the segments "", "A", "B"; "0:\" is the root.
//
//   DirectorySupport parts("0:\\A\\B");
//   for (int i = 0; i < parts.NumberEntries(); ++i) Show(parts.Drive(), *parts[i]);
//
// One thread uses an object at a time.
#pragma once

#include "capsule/export.h"
#include "capsule/platform/cstring.h"
#include "capsule/runtime/cps_list.h"

namespace capsule {

class CAPSULE_API DirectorySupport {
 public:
  // Of an empty path.
  DirectorySupport() = default;

  // Splits `path`; null counts as empty.
  explicit DirectorySupport(const char* path);
  virtual ~DirectorySupport();
  DirectorySupport(const DirectorySupport&) = delete;
  DirectorySupport& operator=(const DirectorySupport&) = delete;

  // Splits the stored path once more: its segments are appended to those already there.
  void Parse();

  // Null for an empty path, "" without a drive part. Valid as long as the object.
  const char* Drive() const;

  // Segment `i` from 0, owned by the object; null when there is none.
  CString* operator[](int i) const;
  int NumberEntries() const;

  // 1 when there is exactly one segment and it is empty.
  int IsRoot() const;

 private:
  CString m_strPath;
  CString m_strDrive;
  CpsList m_Segments;
};

}  // namespace capsule
