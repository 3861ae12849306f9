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

  // Threads that decode and write; 0: one a processor. Whatever their number, what comes out is the
  // same, and callbacks are called on the thread of Extractor::Run, in the order of the image. With
  // 1 there are no other threads. Unless `onDamage` is Stop, files are read on that thread alone.
  int jobs = 0;
};

}  // namespace capsule::host
