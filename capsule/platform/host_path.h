// The text of paths to inserted items; nothing here looks at files.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace capsule::platform {

// A path taken apart: "X:" in front, then the text up to the last component, then that component.
// front + component is the path; component holds no separator.
struct HostPath {
  std::optional<char> letter;
  std::string_view front;      // with "X:" and the last separator
  std::string_view component;  // empty when the path ends with a separator
};

HostPath SplitHostPath(std::string_view path);

// Whether the last component that is not empty begins with a dot but is not "." or "..".
bool IsDotName(std::string_view path);

// "." or ".." or nothing: a component that names no new item.
bool IsDirectoryReference(std::string_view component);

// The path of the system for what follows "X:", where X stands for `root`. Every component is taken
// below the root: ".." goes up by one component of the text, and stays at the root when there is
// none. Ends with "/" where the path asks for a directory.
std::string JoinBelowRoot(const std::string& root, std::string_view rest);

// `path` with "/" for every separator.
std::string WithSlashes(std::string_view path);

// `directory` without "/" at its end; "." when it is empty.
std::string CanonicalDirectory(std::string directory);

}  // namespace capsule::platform
