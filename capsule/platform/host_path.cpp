// Paths are resolved by their text alone, so what a path below a root means does not depend on
// where the root lies, nor on links.
#include "capsule/platform/host_path.h"

#include <algorithm>
#include <vector>

namespace capsule::platform {
namespace {

constexpr std::string_view kSeparators = "\\/";

}  // namespace

HostPath SplitHostPath(std::string_view path) {
  HostPath parts;
  size_t front = 0;
  if (path.size() >= 2 && path[1] == ':') {
    parts.letter = path[0];
    front = 2;
  }
  const size_t separator = path.find_last_of(kSeparators);
  if (separator != std::string_view::npos) front = std::max(front, separator + 1);
  parts.front = path.substr(0, front);
  parts.component = path.substr(front);
  return parts;
}

bool IsDotName(std::string_view path) {
  HostPath parts = SplitHostPath(path);
  while (parts.component.empty() && parts.front.size() > (parts.letter ? 2U : 0U)) {
    path.remove_suffix(1);
    parts = SplitHostPath(path);
  }
  return !IsDirectoryReference(parts.component) && parts.component.front() == '.';
}

bool IsDirectoryReference(std::string_view component) {
  return component.empty() || component == "." || component == "..";
}

std::string JoinBelowRoot(const std::string& root, std::string_view rest) {
  std::vector<std::string_view> components;
  bool asksForDirectory = false;
  while (!rest.empty()) {
    const std::string_view component = rest.substr(0, rest.find_first_of(kSeparators));
    const bool atEnd = component.size() == rest.size();
    rest.remove_prefix(component.size() + (atEnd ? 0 : 1));
    asksForDirectory = !atEnd || IsDirectoryReference(component);
    if (component == ".." && !components.empty()) components.pop_back();
    if (!IsDirectoryReference(component)) components.push_back(component);
  }
  std::string path = root;
  for (const std::string_view component : components) {
    if (!path.ends_with('/')) path += '/';
    path += component;
  }
  if (asksForDirectory && !path.ends_with('/')) path += '/';
  return path;
}

std::string WithSlashes(std::string_view path) {
  std::string slashed(path);
  std::replace(slashed.begin(), slashed.end(), '\\', '/');
  return slashed;
}

std::string CanonicalDirectory(std::string directory) {
  while (directory.size() > 1 && directory.ends_with('/')) directory.pop_back();
  return directory.empty() ? "." : directory;
}

}  // namespace capsule::platform
