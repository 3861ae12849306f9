// ExtractOptions is how an Extractor goes about its work, and whom it tells of it.
//
//   host::ExtractOptions options;
//   options.onProgress = [](const host::ExtractProgress& progress) { Show(progress.path); };
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "capsule/host/damaged_file.h"

namespace capsule::host {

// How far an extraction has come. `path` is the entry just written, "N:/folder/file".
struct ExtractProgress {
  std::string path;
  uint64_t files = 0;
  uint64_t directories = 0;
  uint64_t bytes = 0;
};

struct ExtractOptions {
  bool force = false;

  // Files whose records are damaged. Unless it is Stop, every file is decoded twice, and each part
  // of it that is not there as it was goes to `onLost`, in order, with the file's path.
  OnDamage onDamage = OnDamage::Stop;
  std::function<void(const std::string& path, const LostRange&)> onLost;
  std::function<void(const ExtractProgress&)> onProgress;
};

}  // namespace capsule::host
