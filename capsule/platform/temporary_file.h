// TemporaryFile is a file in the making beside the one in whose place it is to come, readable by
// its owner alone until it is complete.
//
//   TemporaryFile file;
//   if (!file.Create("/srv/photos.cap")) Fail(errno);
//   Fill(file.Path());
//   int syncProblem = 0;
//   if (const char* step = file.Publish(&syncProblem)) Fail(step, errno);
//   if (syncProblem != 0) Warn(syncProblem);
//
// It is an UnfinishedFile. One thread uses an object.
#pragma once

#include <string>

#include "capsule/platform/unfinished_file.h"

namespace capsule::platform {

class TemporaryFile {
 public:
  TemporaryFile() = default;
  ~TemporaryFile();  // removes a file that was not published
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  // Creates the file for `target`, a path of the system that may exist, and removes what killed
  // runs left in the same folder. False with errno.
  bool Create(const std::string& target);

  // Gives the file the permissions of the target, or those of any new file where there is none,
  // brings it to disk and puts it in the place of the target. Null, or which step failed, with
  // errno: the target is as it was then. When it has taken its place, but whether that is on disk
  // is unknown, `*syncProblem` is the errno, else 0.
  const char* Publish(int* syncProblem);

  // Removes a file that was not published.
  void Remove();

  std::string Path() const { return m_folder + m_file.Name(); }
  int Descriptor() const { return m_file.Descriptor(); }

 private:
  bool SetMode();

  std::string m_folder;  // with "/" at its end
  std::string m_name;
  int m_folderDescriptor = -1;
  UnfinishedFile m_file;
};

// Opens a file without a name for reading and writing, in the folder of `target`: it goes away when
// it is closed, however the process ends. -1 with errno.
int OpenUnnamed(const std::string& target);

}  // namespace capsule::platform
