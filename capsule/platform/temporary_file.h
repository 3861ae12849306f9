// TemporaryFile is a file in the making: it stands under a name of its own beside the one it is to
// have, readable by its owner alone, and takes that name in one step when it is complete.
//
//   TemporaryFile file;
//   if (!file.Create("/srv/photos.cap")) Fail(errno);
//   Fill(file.Path());
//   if (const char* step = file.Publish()) Fail(step, errno);
//
// The name is ".photos.cap.capsule-tmp-" and twelve random letters. The file is locked as long as
// its maker lives: a file of such a name that nobody has locked is what a killed run left, and the
// next Create for the same target removes it. One thread uses an object.
#pragma once

#include <string>

namespace capsule::platform {

class TemporaryFile {
 public:
  TemporaryFile() = default;
  ~TemporaryFile();  // removes a file that was not published
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  // Creates the file for `target`, a path of the system that may exist. False with errno.
  bool Create(const std::string& target);

  // Gives the file the permissions of the target, or those of any new file where there is none,
  // brings it to disk and puts it in the place of the target. Null, or which step failed, with
  // errno; the target is as it was unless that was the last step, "sync of the folder".
  const char* Publish();

  // Removes a file that was not published.
  void Remove();

  const std::string& Path() const { return m_strPath; }
  int Descriptor() const { return m_nDescriptor; }  // for reading and writing; -1 without a file

 private:
  bool CreateOnce();

  std::string m_strTarget;
  std::string m_strPath;
  int m_nDescriptor = -1;
};

}  // namespace capsule::platform
