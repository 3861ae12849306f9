// Judges what `capsule index` makes of a damaged image.
//
//   - It writes an index, or refuses and leaves the image as it was.
//   - What it has written opens strictly and is sound for `verify`, or the damage goes on being
//   told.
//   - While `verify` finds nothing, every file is read as it was. Of an image without check values
//     that is asked for only of files of which damage was told before, or which were read otherwise
//     then: the rest nobody can tell.
#pragma once

#include <string>

#include "tests/support/damage_seed.h"

namespace capsule::fuzz {

struct IndexJudgement {
  bool isWritten = false;
  std::string finding;  // what is wrong, or nothing
};

// `path`: an image made of `seed`, which is changed.
IndexJudgement JudgeIndexing(const test::DamageSeed& seed, const std::string& path);

}  // namespace capsule::fuzz
