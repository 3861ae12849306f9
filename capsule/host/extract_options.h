// ExtractOptions is how an Extractor goes about its work, and whom it tells of it.
//
//   host::ExtractOptions options;
//   options.onProgress = [](const host::Progress& progress) { Show(progress.path); };
#pragma once

#include <functional>
#include <stop_token>
#include <string>

#include "capsule/host/damaged_file.h"
#include "capsule/host/progress.h"

namespace capsule::host {

struct ExtractOptions {
  bool force = false;

  // Files whose records are damaged. Unless it is Stop, every file is decoded twice, and each part
  // of it that is not there as it was goes to `onLost`, in order, with the file's path.
  OnDamage onDamage = OnDamage::Stop;
  std::function<void(const std::string& path, const LostRange&)> onLost{};

  OnProgress onProgress{};  // told behind every item, and within long files
  std::stop_token stop{};   // ends the extraction: what is complete by then stays
};

}  // namespace capsule::host
