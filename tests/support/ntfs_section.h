// Sections of NTFS records made from a real volume.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/foreign_image.h"
#include "tests/support/ntfs_volume.h"

namespace capsule::test {

struct NtfsStyle {
  // The volume's FILE records have their update sequence at 48 and their first attribute at 56.
  // Earlier systems had them at 42 and 48.
  bool earlierLayout = false;

  // A FILE record behind the tree that no folder counts.
  bool strayFile = false;
};

// Moves a FILE record's update sequence to 42 and its first attribute to 48.
void ToEarlierLayout(Bytes& record);

// One record; `length`: what the payload stands for when it is compressed, else 0.
void PutNtfsRecord(ForeignImage& image, uint32_t type, bool last, size_t length,
                   const Bytes& payload, uint32_t primary = 0);

// The whole section with its index records: every folder followed by what is below it, in the
// order of names. Data of the file system's own files is left out.
void PutNtfsSection(ForeignImage& image, const NtfsVolume& volume, const NtfsStyle& style);

}  // namespace capsule::test
