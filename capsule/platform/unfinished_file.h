// UnfinishedFile is a file in the making: it stands in its folder under a name that says so, and
// goes away unless it gets the name that it is to have.
//
//   UnfinishedFile file;
//   if (!file.Create(folder, ".photos.cap", 0600)) Fail(errno);
//   Fill(file.Descriptor());
//   if (!file.Publish("photos.cap", true)) Fail(errno);
//
// The name is ".photos.cap.capsule-tmp-" and twelve random letters. As long as its maker lives, the
// file is locked, or its folder is: a file of such a name is what a killed run left when nobody has
// locked either. One thread uses an object.
#pragma once

#include <string>
#include <string_view>

namespace capsule::platform {

// What says that the maker of an unfinished file lives.
enum class Sign {
  FileLock,    // a lock of the file's own
  FolderLock,  // ClaimFolder, which the caller has done for the descriptor of the folder
};

class UnfinishedFile {
 public:
  UnfinishedFile() = default;
  ~UnfinishedFile();  // removes a file that was not published
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  // Creates the file in `folder`, a descriptor that must outlive it. Its name begins with `begin`,
  // which is empty or begins with a dot. `mode`: its permissions, less the mask of the process.
  // False with errno, and without a file.
  bool Create(int folder, std::string_view begin, unsigned mode, Sign sign = Sign::FileLock);

  // Gives the file its name in one step, over what stands there unless `keepExisting`, in which
  // case an existing name gives EEXIST. Never over a folder. Sees to it first that what was written
  // has arrived as far as closing tells. False with errno: the file is still unfinished, but may be
  // closed.
  bool Publish(const char* name, bool keepExisting);

  // Removes a file that was not published.
  void Remove();

  const std::string& Name() const { return m_name; }
  int Descriptor() const { return m_descriptor; }  // for reading and writing; -1 without a file

 private:
  friend class EndingList;
  bool CreateOnce(unsigned mode);
  void Forget();

  int m_folderDescriptor = -1;
  std::string m_name;
  bool m_isThere = false;  // under that name
  int m_descriptor = -1;
  Sign m_sign = Sign::FileLock;
  UnfinishedFile* m_previous = nullptr;  // of all that are to go when a signal ends the process
  UnfinishedFile* m_next = nullptr;
};

// Whether files of this name are unfinished ones of this library.
bool IsUnfinishedName(std::string_view name);

// Removes what killed runs left in an open folder. What cannot be removed stays, and so does
// everything as long as somebody has claimed the folder.
void RemoveLeftOvers(int folder);

// Keeps others from taking unfinished files in an open folder for what killed runs left, until the
// descriptor and all copies of it are closed. False when somebody else has done so, or the file
// system cannot lock folders.
bool ClaimFolder(int folder);

// From now on the signals INT, TERM and HUP, those left out that are ignored, remove all unfinished
// files of the process, and then end it as they do by themselves.
void RemoveUnfinishedFilesOnSignals();

}  // namespace capsule::platform
