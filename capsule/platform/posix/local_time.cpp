#include <algorithm>
#include <ctime>

#include "capsule/platform/dos_time.h"

namespace capsule::platform {

unsigned char LocalSeconds(FileTime fileTime) {
  const time_t at = UnixSeconds(fileTime);
  tm local{};
  if (::localtime_r(&at, &local) == nullptr)
    return static_cast<unsigned char>(((at % 60) + 60) % 60);
  return static_cast<unsigned char>(std::min(local.tm_sec, 59));  // some zones count leap seconds
}

}  // namespace capsule::platform
