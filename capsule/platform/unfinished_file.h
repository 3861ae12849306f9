// UnfinishedFile is a file in the making: it stands in its folder under a name that says so, and
// goes away unless it gets the name that it is to have.
//
//   UnfinishedFile file;
//   if (!file.Create(folder, ".photos.cap", 0600)) Fail(errno);
//   Fill(file.Descriptor());
//   if (!file.Publish("photos.cap", true)) Fail(errno);
//
// The name is ".photos.cap.capsule-tmp-" and twelve random letters. The file is locked as long as
// its maker lives: a file of such a name that nobody has locked is what a killed run left. One
// thread uses an object.
#pragma once

#include <string>
#include <string_view>

namespace capsule::platform {

class UnfinishedFile {
 public:
  UnfinishedFile() = default;
  ~UnfinishedFile();  // removes a file that was not published
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  // Creates the file in `folder`, a descriptor that must outlive it. Its name begins with `begin`,
  // which is empty or begins with a dot. `mode`: its permissions, less the mask of the process.
  // False with errno, and without a file.
  bool Create(int folder, std::string_view begin, unsigned mode);

  // Gives the file its name in one step, over what stands there unless `keepExisting`, in which
  // case an existing name gives EEXIST. Never over a folder. Sees to it first that what was written
  // has arrived as far as closing tells. False with errno: the file is still unfinished.
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
  int m_descriptor = -1;
  UnfinishedFile* m_previous = nullptr;  // of all that are to go when a signal ends the process
  UnfinishedFile* m_next = nullptr;
};

// Whether files of this name are unfinished ones of this library.
bool IsUnfinishedName(std::string_view name);

// Removes what killed runs left in an open folder. What cannot be removed stays.
void RemoveLeftOvers(int folder);

// From now on the signals INT, TERM and HUP, those left out that are ignored, remove all unfinished
// files of the process, and then end it as they do by themselves.
void RemoveUnfinishedFilesOnSignals();

}  // namespace capsule::platform
