// Opening images and finding entries, with words for the user.
#pragma once

#include <string>

#include "capsule/host/image.h"
#include "cli/command.h"
#include "cli/talk.h"

namespace capsule::cli {

// Opens an image, whole or damaged.
inline host::Image OpenImage(const std::string& path) {
  return host::Image(path, host::Opening::Salvage);
}

// Names the damage of an image that could be opened; the exit code that it is worth. A missing
// index is none: everything is there.
inline int ComplainAboutProblems(const host::Image& image, Talk& talk) {
  const host::ImageInfo& info = image.Info();
  if (!info.scanReason.empty()) {
    talk.Complain(image.Path(), "opened by scanning, read-only: " + info.scanReason);
  }
  for (const host::ImageProblem& problem : image.Problems()) {
    talk.Complain(image.Path(), problem.path + ": " + problem.reason);
  }
  return image.IsWhole() ? kDone : kProblems;
}

// Throws host::Error when there is no such entry.
inline host::Entry FindOrFail(const host::Image& image, const std::string& path) {
  const auto entry = image.Find(path);
  if (!entry)
    throw host::Error(host::ErrorKind::NotFound, image.Path(), path + ": not in the image");
  return *entry;
}

}  // namespace capsule::cli
