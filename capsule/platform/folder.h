// Folders by descriptor, for working below one of them without ever leaving it: every name is a
// single component of a folder that is open already, and no link is followed. Failures give false,
// -1 or nothing, and leave the reason in errno.
#pragma once

#include <cstdint>

namespace capsule::platform {

// Opens the folder at `path`, a path of the system. A link as its last component is refused.
int OpenFolder(const char* path);

// The same, but a link as the last component is followed.
int OpenFolderBehind(const char* path);

// Opens the folder `name` of `folder`, or with ".." the one above it.
int OpenFolderIn(int folder, const char* name);

// Opens what is no folder for reading, without waiting for it. The caller sees to it that it is a
// file before it reads.
int OpenFileIn(int folder, const char* name);

bool MakeFolderIn(int folder, const char* name);

// Takes the permissions to write from an open folder.
bool MakeReadOnly(int folder);

// What stands under a name. A link is Other, whatever it leads to.
enum class Presence { Nothing, Folder, File, Other, Unknown };
Presence LookIn(int folder, const char* name);

// Gives the file `temporary` its final name, whole in one step: over what stands there unless
// `keepExisting`, in which case an existing name gives false with EEXIST. Never over a folder.
bool PublishIn(int folder, const char* temporary, const char* name, bool keepExisting);

// Access and modification time of an open file or folder, seconds after 1970.
bool SetTimes(int descriptor, int64_t seconds);

}  // namespace capsule::platform
