// Opening images and finding entries, with words for the user.
#pragma once

#include <string>

#include "capsule/host/image.h"
#include "cli/command.h"
#include "cli/talk.h"

namespace capsule::cli {

// Names the damaged entries of an image; the exit code that they are worth.
inline int ComplainAboutProblems(const host::Image& image, Talk& talk) {
  for (const host::ImageProblem& problem : image.Problems()) {
    talk.Complain(image.Path(), problem.path + ": " + problem.reason);
  }
  return image.Problems().empty() ? kDone : kProblems;
}

// Throws host::Error when there is no such entry.
inline host::Entry FindOrFail(const host::Image& image, const std::string& path) {
  const auto entry = image.Find(path);
  if (!entry) throw host::Error(image.Path(), path + ": not in the image");
  return *entry;
}

}  // namespace capsule::cli
