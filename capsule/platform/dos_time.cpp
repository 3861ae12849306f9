#include "capsule/platform/dos_time.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace capsule::platform {
namespace {

constexpr int64_t kUnixOfFileTimeZero = -11644473600;  // 1601-01-01
constexpr uint64_t kTicksPerSecond = 10'000'000;

constexpr DosDateTime kEarliest{(0 << 9) | (1 << 5) | 1, 0};  // 1980-01-01
constexpr DosDateTime kLatest{(127 << 9) | (12 << 5) | 31, (23 << 11) | (59 << 5) | 29};  // 2107

}  // namespace

DosDateTime ToDosDateTime(FileTime fileTime) {
  using std::chrono::floor;
  const std::chrono::sys_seconds at{std::chrono::seconds{UnixSeconds(fileTime)}};
  if (at.time_since_epoch().count() < ToUnixSeconds(kEarliest)) return kEarliest;
  if (at.time_since_epoch().count() > ToUnixSeconds(kLatest)) return kLatest;

  const auto day = floor<std::chrono::days>(at);
  const std::chrono::year_month_day date{day};
  const std::chrono::hh_mm_ss clock{at - day};
  const auto year = static_cast<unsigned>(static_cast<int>(date.year()) - 1980);
  const auto month = static_cast<unsigned>(date.month());
  const auto hours = static_cast<unsigned>(clock.hours().count());
  const auto minutes = static_cast<unsigned>(clock.minutes().count());
  const auto seconds = static_cast<unsigned>(clock.seconds().count());
  return {static_cast<uint16_t>(year << 9 | month << 5 | static_cast<unsigned>(date.day())),
          static_cast<uint16_t>(hours << 11 | minutes << 5 | seconds / 2)};
}

int64_t ToUnixSeconds(DosDateTime dos) {
  using namespace std::chrono;
  const year y{1980 + (dos.date >> 9)};
  const month m{static_cast<unsigned>(std::clamp((dos.date >> 5) & 15, 1, 12))};
  const auto last = static_cast<int>(static_cast<unsigned>((y / m / std::chrono::last).day()));
  const day d{static_cast<unsigned>(std::clamp(dos.date & 31, 1, last))};
  const hours h{std::min(dos.time >> 11, 23)};
  const minutes min{std::min((dos.time >> 5) & 63, 59)};
  const seconds s{2 * std::min(dos.time & 31, 29)};
  return sys_seconds{sys_days{y / m / d} + h + min + s}.time_since_epoch().count();
}

FileTime FileTimeFromUnix(int64_t seconds, uint32_t nanoseconds) {
  constexpr FileTime kLast = std::numeric_limits<FileTime>::max();
  constexpr auto kLastSecond =
      static_cast<int64_t>(kLast / kTicksPerSecond - 1) + kUnixOfFileTimeZero;
  if (seconds < kUnixOfFileTimeZero) return 0;
  if (seconds > kLastSecond) return kLast;
  return static_cast<uint64_t>(seconds - kUnixOfFileTimeZero) * kTicksPerSecond + nanoseconds / 100;
}

int64_t UnixSeconds(FileTime fileTime) {
  return static_cast<int64_t>(fileTime / kTicksPerSecond) + kUnixOfFileTimeZero;
}

}  // namespace capsule::platform
