// Progress is how far a long operation has come. Builders, extractors, verifiers and index writers
// tell it, and end when their std::stop_token says so, whatever thread that comes from.
//
//   std::stop_source stop;
//   host::BuildOptions options;
//   options.stop = stop.get_token();
//   options.onProgress = [&](const host::Progress& progress) {
//     Show(progress.path, progress.bytesDone, progress.bytesTotal);
//     if (progress.files == 1000) stop.request_stop();
//   };
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace capsule::host {

struct Progress {
  std::string path{};        // the file or folder at hand, "N:/folder/file"; may be empty
  uint64_t files = 0;        // done
  uint64_t directories = 0;  // done
  uint64_t bytesDone = 0;    // of files by builders and extractors, else of the image; never falls
  uint64_t bytesTotal = 0;  // what bytesDone will be at the end, if nothing is left out; 0: unknown
};

// Called on the thread of the operation, also within long files. What it throws ends the operation
// as cancelling does.
using OnProgress = std::function<void(const Progress&)>;

}  // namespace capsule::host
