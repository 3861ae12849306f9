// ImageProblem is a loss or a doubt that opening an image, or making its index, tells of and goes
// on.
//
//   host::Image image("damaged.cap", host::Opening::Salvage);
//   for (const host::ImageProblem& problem : image.Problems()) Print(problem.path, problem.reason);
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace capsule::host {

// What is wrong with a single entry, or with the header, of an image that could be opened.
struct ImageProblem {
  std::string path;  // "N:/folder/file", "header", or where in the image the records of an item are
  std::string reason;
  bool isLeftOut = false;               // the tree has no place for it
  std::optional<uint64_t> offset = {};  // where in the image, when that is known
};

}  // namespace capsule::host
