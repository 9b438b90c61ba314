// Legacy time: ranges, clock readings and uptime; and every half hour of several years in zones of
// all kinds, compared with the C library.
#include <sys/sysinfo.h>
#include <sys/time.h>

#include <deque>

#include "support/library_test.h"

// Found where the record is declared, by its own name.
static bool operator==(const ZotSystime& one, const ZotSystime& other) {
  return std::memcmp(&one, &other, sizeof(one)) == 0;
}

static std::deque<timeval> g_readings;  // of the clock; a negative second is a failure
static long g_uptime = -1;              // of the system, if not negative
static bool g_tickStands = false;       // at 5 ms and 4096 times 2 to the 32nd nanoseconds

INTERPOSE(
    int, gettimeofday, (timeval * now, void* zone), (now, zone), if (!g_readings.empty()) {
      *now = g_readings.front();
      g_readings.pop_front();
      return now->tv_sec < 0 ? -1 : 0;
    })

INTERPOSE(
    uint32_t, KEM_GetCpuTick, (uint32_t * low, uint32_t* high), (low, high), if (g_tickStands) {
      *low = 5'000'000;
      *high = 0x1000;
      return QURN_OK;
    })

extern "C" int sysinfo(struct sysinfo* info) noexcept {
  info->uptime = g_uptime;
  return g_uptime < 0 ? -1 : 0;
}

namespace {

constexpr ZotSystime kGood{2000, 2, 29, 23, 59, 59, 6, 999};

void zone(const char* name) {
  setenv("TZ", name, 1);
  tzset();
}

ZotSystime record(const tm& parts, uint32_t millSec) {
  return {uint16_t(parts.tm_year + 1900), uint8_t(parts.tm_mon + 1),
          uint8_t(parts.tm_mday),         uint8_t(parts.tm_hour),
          uint8_t(parts.tm_min),          uint8_t(parts.tm_sec),
          uint8_t(parts.tm_wday),         millSec};
}

ZotSystime gmt(time_t moment, uint32_t millSec = 0) {
  tm parts{};
  return record(*gmtime_r(&moment, &parts), millSec);
}

TEST(LegacyTime, EveryFieldIsCheckedAndTheFirstBadOneNamed) {
  const std::pair<ZotSystime, const char*> cases[] = {
      {kGood, ""},
      {{2038, 12, 31, 23, 59, 59, 0, 999}, ""},
      {{1970, 1, 1, 0, 0, 0, 0, 0}, ""},
      {{2039, 2, 28, 23, 59, 59, 6, 999}, "Year should be within [1970, 2038].(year=2039)"},
      {{1969, 0, 0, 24, 0, 0, 0, 0}, "Year should be within [1970, 2038].(year=1969)"},
      {{2000, 0, 29, 23, 59, 59, 6, 999}, "Month should be within [1, 12].(month=0)"},
      {{2000, 13, 29, 23, 59, 59, 6, 999}, "Month should be within [1, 12].(month=13)"},
      {{2000, 2, 0, 23, 59, 59, 6, 999}, "Date should be within [1, 29].(date=0)"},
      {{2001, 2, 29, 23, 59, 59, 6, 999}, "Date should be within [1, 28].(date=29)"},
      {{2004, 4, 31, 0, 0, 0, 0, 0}, "Date should be within [1, 30].(date=31)"},
      {{2004, 8, 32, 0, 0, 0, 0, 0}, "Date should be within [1, 31].(date=32)"},
      {{2000, 2, 29, 24, 59, 59, 6, 999}, "Date should be within [0, 23].(hour=24)"},
      {{2000, 2, 29, 23, 60, 59, 6, 999}, "Date should be within [0, 59].(minute=60)"},
      {{2000, 2, 29, 23, 59, 60, 6, 999}, "Date should be within [0, 59].(second=60)"},
      {{2000, 2, 29, 23, 59, 59, 7, 999}, "Date should be within [0, 6].(week=7)"},
      {{2000, 2, 29, 23, 59, 59, 6, 1000}, "Date should be within [0, 999].(millSec=1000)"},
  };
  zone("UTC");
  for (const auto& [time, message] : cases) {
    recorded::forget();
    ZotSystime out = kGood;
    uint32_t isDst = 9;
    const bool good = *message == '\0';
    EXPECT_CODES(Codes(3, good ? 0 : 22), ZOT_Gmt2Lmt(&time, &out),
                 ZOT_Gmt2LocalTime(&time, &out, &isDst), ZOT_Lmt2LocalTime(&time, &out, &isDst))
        << message;
    EXPECT_TRUE(good || (out == kGood && isDst == 9));
    EXPECT_EQ(recorded::texts(100),
              good ? Texts{}
                   : (Texts{message, message, "Gmt to local time unsuccessfully, gmt time invalid.",
                            message, "Lmt time invalid."}));
    EXPECT_TRUE(good || recorded::lines()[0].unit == "qurn_systime");
  }
}

TEST(LegacyTime, ConversionsThatFailSayWhyAndTouchNothing) {
  zone("<+08>-8");
  ZotSystime out = kGood;
  uint32_t isDst = 9;
  EXPECT_CODES(Codes(5, 22), ZOT_Gmt2LocalTime(nullptr, &out, &isDst),
               ZOT_Gmt2LocalTime(&kGood, nullptr, &isDst), ZOT_Gmt2LocalTime(&kGood, &out, nullptr),
               ZOT_Gmt2Lmt(nullptr, &out), ZOT_Gmt2Lmt(&kGood, nullptr));
  EXPECT_EQ(recorded::texts(), Texts{});
  EXPECT_CODES((Codes{22, 22, 22, 9}), ZOT_Lmt2LocalTime(nullptr, &out, &isDst),
               ZOT_Lmt2LocalTime(&kGood, nullptr, &isDst), ZOT_Lmt2LocalTime(&kGood, &out, nullptr),
               isDst);
  const ZotSystime early{1970, 1, 1, 0, 30, 0, 4, 0};  // in GMT still the year before
  EXPECT_CODES((Codes{22, 0}), ZOT_Lmt2LocalTime(&early, &out, &isDst), isDst);
  EXPECT_EQ(out, kGood);
  const std::string invalid = "Lmt to LocalTime input invalid.";
  EXPECT_TEXTS(100, invalid, invalid, invalid, "Year should be within [1970, 2038].(year=1969)",
               "Gmt to local time unsuccessfully, gmt time invalid.",
               "Gmt to local time unsuccessfully!");
}

// The hours that a zone skips or repeats are those where the given fields, read in the zone, do not
// exist or exist twice.
TEST(LegacyTime, EveryHalfHourOfNineYearsConvertsAsTheCLibraryDoesInAnyZone) {
  constexpr time_t kFrom = 1230768000 + 17;  // 2009
  constexpr time_t kTo = 1514764800;         // 2018
  // Odd ones among them: St. John's is half an hour off and changed at one past midnight, India is
  // half an hour off without daylight saving, Nepal three quarters; Lord Howe Island has half an
  // hour of daylight saving, Sao Paulo skips midnight, and Samoa skipped a whole day.
  for (const char* name :
       {"Europe/Berlin", "America/New_York", "America/St_Johns", "Asia/Kolkata", "Asia/Kathmandu",
        "Australia/Lord_Howe", "America/Sao_Paulo", "Pacific/Apia"}) {
    zone(name);
    size_t daylight = 0;
    for (time_t moment = kFrom; moment < kTo; moment += 1800) {
      const uint32_t millSec = static_cast<uint32_t>(moment / 1800 % 1000);
      ZotSystime given = gmt(moment, millSec);
      given.week = 3;  // is not looked at
      tm parts{};
      const ZotSystime expected = record(*localtime_r(&moment, &parts), millSec);
      const auto expectedDst = static_cast<uint32_t>(parts.tm_isdst);
      ZotSystime local{};
      ZotSystime lmt{};
      ZotSystime back{};
      uint32_t isDst = 9;
      uint32_t backDst = 9;
      ASSERT_EQ(ZOT_Gmt2LocalTime(&given, &local, &isDst) | ZOT_Gmt2Lmt(&given, &lmt) |
                    ZOT_Lmt2LocalTime(&lmt, &back, &backDst),
                0U);
      ASSERT_TRUE(local == expected && back == expected && lmt == gmt(moment - timezone, millSec) &&
                  isDst == expectedDst && backDst == expectedDst)
          << name << ' ' << moment;
      daylight += isDst;
    }
    // Otherwise the system has no such zone, and everything above was UTC.
    EXPECT_TRUE(daylight != 0 || timezone != 0) << "install tzdata";
  }
}

TEST(LegacyTime, TheClockIsReadUntilTwoReadingsAgreeOnTheSecond) {
  uint32_t seconds = 0;
  uint32_t micros = 0;
  ZotSystime time{};
  uint32_t isDst = 0;
  g_readings = {{100, 999999}, {101, 1}, {101, 2}, {101, 3}};
  EXPECT_CODES((Codes{0, 101, 2}), ZOT_GetSystemTime(&seconds, &micros), seconds, micros);
  for (time_t second = 0; second < 300; ++second) {
    g_readings.push_back({second, second});
  }
  EXPECT_CODES((Codes{0, 198}), ZOT_GetSystemTime(&seconds, &micros), seconds);
  EXPECT_EQ(g_readings.size(), 100U) << "the first of the 100th pair counts";
  zone("Asia/Kolkata");
  g_readings = {{86400, 1999}, {86400, 2000}, {86400, 5000}, {86400, 5000}};
  EXPECT_EQ(ZOT_SystimeGet(&time), 0U);
  EXPECT_EQ(time, (ZotSystime{1970, 1, 2, 0, 0, 0, 5, 1}));
  EXPECT_EQ(ZOT_Local_SystimeGet(&time, &isDst), 0U);
  EXPECT_EQ(time, (ZotSystime{1970, 1, 2, 5, 30, 0, 5, 5}));
  g_readings = {{5, 0}, {-1, 0}, {-1, 0}, {-1, 0}};
  EXPECT_CODES(Codes(2, QURN_FAILED), ZOT_GetSystemTime(&seconds, &micros), ZOT_SystimeGet(&time));
  EXPECT_EQ(time, ZotSystime{});
  EXPECT_EQ(ZOT_Local_SystimeGet(&time, &isDst), QURN_FAILED | 22U);
  EXPECT_ERROR("Gmt to local time unsuccessfully, gmt time invalid.");
  EXPECT_CODES((Codes{22, QURN_FAILED, QURN_FAILED}), ZOT_GMT_SystimeGet(nullptr),
               ZOT_GetSystemTime(nullptr, &micros), ZOT_GetSystemTime(&seconds, nullptr));
}

TEST(LegacyTime, SecondsAndTheSystemsStartAreBrokenDown) {
  ZotSystime time{};
  time.millSec = 777;  // not written
  EXPECT_EQ(ZOT_Second2GMT(951868799, &time), 0U);
  EXPECT_EQ(time, (ZotSystime{2000, 2, 29, 23, 59, 59, 2, 777}));
  EXPECT_CODES((Codes{22, QURN_FAILED}), ZOT_Second2GMT(0, nullptr), SSP_GetsystemStartTime(&time));
  const time_t now = std::time(nullptr);
  g_uptime = static_cast<long>(now) - 1'000'000;
  EXPECT_EQ(SSP_GetsystemStartTime(&time), 0U);
  ZotSystime expected = gmt(1'000'000 + std::time(nullptr) - now);
  expected.week = 2;  // not written
  EXPECT_EQ(time, expected);
  g_uptime = static_cast<long>(now) + 2'000'000;  // a clock that was never set
  EXPECT_EQ(SSP_GetsystemStartTime(&time), 0U);
  EXPECT_TRUE(time.year == 1970 && time.month == 1 && time.date == 24 && time.millSec == 0);
}

TEST(LegacyTime, UptimeCountsFromItsRecord) {
  ZotUptimeRecord* zero = ZOT_StartuptimeInit();
  ASSERT_NE(zero, nullptr);
  ZotUptimeMs uptime{};
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  EXPECT_EQ(ZOT_CalUptime(zero, &uptime), 0U);
  const auto late = (int64_t{uptime.msHigh} << 32U | uptime.msLow) - now.tv_sec * 1000;
  EXPECT_TRUE(late >= 0 && late < 60'000) << late;

  g_tickStands = true;
  const ZotUptimeRecord later{1'000'000, 0x1000, 1, 1000};
  const ZotUptimeRecord ahead{5'000'001, 0x1000, 0, 0};
  const ZotUptimeRecord tooMuch{0, 0, 0xFFFFFFFF, 0xFFFFFFFF};
  EXPECT_EQ(ZOT_CalUptime(&later, &uptime), 0U);
  fault::arm("KEM_CpuTick2Ms", 0);
  EXPECT_CODES(Codes(5, QURN_FAILED), ZOT_CalUptime(zero, &uptime), ZOT_CalUptime(&ahead, &uptime),
               ZOT_CalUptime(&tooMuch, &uptime), ZOT_CalUptime(nullptr, &uptime),
               ZOT_CalUptime(zero, nullptr));
  EXPECT_TRUE(uptime.msHigh == 1 && uptime.msLow == 1004);
  const std::string invalid = "Calculate the startup time, invalid param";
  EXPECT_TEXTS(
      80, "CPU TICK counts convert to millisecond unsuccessfully ret = 7, tick h:0x1000 l:0x4c4b40",
      "Calculate cputick error, mistake code is 4294967295, subHigh = 4096, subLow =5000001, "
      "High=4294967295, Low =4294967295.",
      "Add startuptime error, mistake code is 4294967295. subHigh = 4294967295, subLow "
      "=4294967295, High=0, Low =17592190.",
      invalid, invalid);
  EXPECT_EQ(ZOT_Free_F(zero, "test", 1), 0U);
}

}  // namespace
