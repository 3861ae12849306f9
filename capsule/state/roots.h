// Roots of the paths that hosts insert.
//
//   platform::SetRoot('P', "photos");
//   CapsuleFile backup;
//   backup.CreateCapsuleFile("backup.cap");
//   backup.WriteImageFileHeader("Capsulate");
//   if (backup.InsertFile("P:\\2024\\beach.jpg", 0) == 0) Show(backup.GetWriteOffset());
//   backup.CloseImageFile();
#pragma once

#include "capsule/export.h"

namespace capsule::platform {

// From now on "X:" in front of an inserted path, X being `letter` compared exactly, stands for
// `directory`, a path of the system; null or empty takes the letter back. Belongs to the library
// state current on this thread: for a host that uses the classes directly, to the process.
CAPSULE_API void SetRoot(char letter, const char* directory);

}  // namespace capsule::platform
