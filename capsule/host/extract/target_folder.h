// A folder of the target that is open. Files under way share it with the walk.
#pragma once

#include <memory>

#include "capsule/platform/scoped_descriptor.h"
#include "capsule/platform/unfinished_file.h"

namespace capsule::host {

struct TargetFolder {
  platform::ScopedDescriptor descriptor;
  platform::Sign sign = platform::Sign::FileLock;  // of unfinished files in it
  bool isNew = false;                              // made by this run: nothing stood in it
  bool isAsked = false;                            // whether it can be claimed

  int Get() const { return descriptor.Get(); }
};

using SharedFolder = std::shared_ptr<TargetFolder>;

}  // namespace capsule::host
