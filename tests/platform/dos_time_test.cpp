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
  for (int64_t day = kFirst; day <= kLast; day += 86400) {
    ExpectSameAsGmtime(day);
    ExpectSameAsGmtime(day + 86399);
  }
  std::mt19937_64 random(1);
  std::uniform_int_distribution<int64_t> moment(kFirst, kLast);
  for (int i = 0; i < 100000; ++i) ExpectSameAsGmtime(moment(random));
}

TEST(DosTimeTest, ClampsToWhatTheWordsCanHold) {
  const auto expect = [](int64_t seconds, int64_t becomes) {
    EXPECT_EQ(ToUnixSeconds(FromUnix(seconds)), becomes) << seconds;
  };
  expect(kFirst - 1, kFirst);
  expect(kLast, kLast - 1);
  expect(kLast + 1, kLast - 1);
  for (const int64_t early :
       {std::numeric_limits<int64_t>::min(), int64_t{-11644473601}, int64_t{0}}) {
    expect(early, kFirst);
  }
  expect(std::numeric_limits<int64_t>::max(), kLast - 1);
  EXPECT_EQ(ToUnixSeconds(ToDosDateTime(std::numeric_limits<FileTime>::max())), kLast - 1);
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
  EXPECT_EQ(FileTimeFromUnix(0, 0), 116444736000000000U);
  EXPECT_EQ(FileTimeFromUnix(0, 1999), 116444736000000019U);
  EXPECT_EQ(FileTimeFromUnix(-11644473600, 0), 0U);
  EXPECT_EQ(UnixSeconds(FileTimeFromUnix(-1, 999'999'999)), -1);
}

TEST(DosTimeTest, LocalSecondsFollowTheTimeZone) {
  const char* before = std::getenv("TZ");
  const std::string saved = before == nullptr ? "" : before;
  const auto in = [](const char* zone, int64_t seconds) {
    ::setenv("TZ", zone, 1);
    ::tzset();
    return static_cast<int>(LocalSeconds(FileTimeFromUnix(seconds, 0)));
  };
  EXPECT_EQ(in("UTC0", 1'000'000'007), 47);
  EXPECT_EQ(in("ODD0:00:30", 1'000'000'007), 17);
  EXPECT_EQ(in("UTC0", -1), 59);
  before == nullptr ? ::unsetenv("TZ") : ::setenv("TZ", saved.c_str(), 1);
  ::tzset();
}

}  // namespace
}  // namespace capsule::platform
