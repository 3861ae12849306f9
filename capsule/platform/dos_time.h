// DOS dates and times: two-second steps from 1980 to 2107, no time zone; taken as UTC here.
#pragma once

#include <cstdint>

#include "capsule/platform/host_view.h"

namespace capsule::platform {

// date: bits 0-4 day (1-31), 5-8 month (1-12), 9-15 year - 1980.
// time: bits 0-4 seconds / 2, 5-10 minutes, 11-15 hours.
struct DosDateTime {
  uint16_t date = 0;
  uint16_t time = 0;
};

// Rounds down to two seconds; times outside 1980 to 2107 become the nearest end of that range.
DosDateTime ToDosDateTime(FileTime fileTime);

// Seconds after 1970; fields out of range are clamped, so any two words give a time.
int64_t ToUnixSeconds(DosDateTime dos);

// `seconds` after 1970; times that a FileTime cannot hold become the nearest one.
FileTime FileTimeFromUnix(int64_t seconds, uint32_t nanoseconds);

// Seconds after 1970, rounded down.
int64_t UnixSeconds(FileTime fileTime);

// The seconds (0-59) of the time in local time, as stored beside a creation time.
unsigned char LocalSeconds(FileTime fileTime);

}  // namespace capsule::platform
