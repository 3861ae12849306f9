#include "capsule/platform/dos_time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <random>

namespace capsule::platform {
namespace {

constexpr int64_t kFirst = 315532800;  // 1980-01-01 00:00:00
constexpr int64_t kLast = 4354819199;  // 2107-12-31 23:59:59

DosDateTime FromUnix(int64_t seconds) { return ToDosDateTime(FileTimeFromUnix(seconds, 0)); }

void ExpectSameAsGmtime(int64_t seconds) {
  const time_t at = seconds;
  tm parts{};
  ASSERT_NE(::gmtime_r(&at, &parts), nullptr);
  const DosDateTime dos = FromUnix(seconds);
  ASSERT_EQ(dos.date, (parts.tm_year - 80) << 9 | (parts.tm_mon + 1) << 5 | parts.tm_mday)
      << seconds;
  ASSERT_EQ(dos.time, parts.tm_hour << 11 | parts.tm_min << 5 | parts.tm_sec / 2) << seconds;
  ASSERT_EQ(ToUnixSeconds(dos), seconds - seconds % 2) << seconds;
}

TEST(DosTimeTest, AgreesWithTheSystemsCalendarOverTheWholeRange) {
  std::mt19937 random(1);
  std::uniform_int_distribution<int64_t> anySecond(0, 86399);
  for (int64_t day = kFirst; day <= kLast; day += 86400) {
    for (const int64_t second : {int64_t{0}, anySecond(random), int64_t{86399}}) {
      ExpectSameAsGmtime(day + second);
    }
  }
}

TEST(DosTimeTest, ClampsToWhatTheWordsCanHold) {
  using Limits = std::numeric_limits<int64_t>;
  for (const int64_t early : {Limits::min(), int64_t{-11644473601}, int64_t{0}, kFirst - 1}) {
    EXPECT_EQ(ToUnixSeconds(FromUnix(early)), kFirst) << early;
  }
  for (const int64_t late : {kLast, kLast + 1, Limits::max()}) {
    EXPECT_EQ(ToUnixSeconds(FromUnix(late)), kLast - 1) << late;
  }
}

TEST(DosTimeTest, AnyTwoWordsGiveATimeInRange) {
  for (uint32_t word = 0; word <= 0xFFFF; ++word) {
    const auto value = static_cast<uint16_t>(word);
    for (const DosDateTime dos : {DosDateTime{value, 0xFFFF}, DosDateTime{0, value}}) {
      const int64_t seconds = ToUnixSeconds(dos);
      ASSERT_GE(seconds, kFirst);
      ASSERT_LE(seconds, kLast);
      ASSERT_EQ(ToUnixSeconds(FromUnix(seconds)), seconds);
    }
  }
  // 2023-15-31 and 2023-02-31: the nearest day of the same month.
  EXPECT_EQ(ToUnixSeconds({43 << 9 | 15 << 5 | 31, 0}), ToUnixSeconds({43 << 9 | 12 << 5 | 31, 0}));
  EXPECT_EQ(ToUnixSeconds({43 << 9 | 2 << 5 | 31, 0}), ToUnixSeconds({43 << 9 | 2 << 5 | 28, 0}));
}

TEST(DosTimeTest, FileTimesCountHundredsOfNanoseconds) {
  EXPECT_EQ(FileTimeFromUnix(0, 1999), 116444736000000019U);
  EXPECT_EQ(FileTimeFromUnix(-11644473600, 0), 0U);
  EXPECT_EQ(UnixSeconds(FileTimeFromUnix(-1, 999'999'999)), -1);
}

TEST(DosTimeTest, LocalSecondsFollowTheTimeZone) {
  const auto in = [](const char* zone, int64_t seconds) {
    ::setenv("TZ", zone, 1);
    ::tzset();
    return static_cast<int>(LocalSeconds(FileTimeFromUnix(seconds, 0)));
  };
  EXPECT_EQ(in("ODD0:00:30", 1'000'000'007), 17);
  EXPECT_EQ(in("UTC0", -1), 59);
  ::unsetenv("TZ");
  ::tzset();
}

}  // namespace
}  // namespace capsule::platform
