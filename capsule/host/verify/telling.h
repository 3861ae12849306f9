// What a host hears of a verification, and what is counted meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "capsule/host/error.h"
#include "capsule/host/file/reason.h"
#include "capsule/host/file/watch.h"
#include "capsule/host/verifier.h"

namespace capsule::host {

struct Telling {
  const std::function<void(const Fault&)>& take;
  Watch watch;
  VerifyReport report = {};
  std::set<uint64_t> told = {};  // offsets of faults

  void Tell(uint64_t offset, const std::string& path, const std::string& reason) {
    ++report.faults;
    told.insert(offset);
    take({offset, path, reason});
  }
};

}  // namespace capsule::host
