// Calendar arithmetic of timestamps with levels: the split of a day number back into a
// date, the packed level number and the timestamp of a date and a time of day.
//
// Day numbers are those of cvd_date_days (corvid/mtime.h): the proleptic Gregorian
// calendar without a year 0, where the day numbers of 1 BC are one above the continuous
// count, so that its 31 December and 1 January AD share 366 and no date has day number 0.
// SplitDayNumber is O(1) (no search), and gives what cvd_date_from_days gives for every
// day number that some date has, 366 splitting to 1 January AD.
// Threading: pure functions.
#ifndef QOPCI_CHUNKERS_CALENDAR_H_
#define QOPCI_CHUNKERS_CALENDAR_H_

#include <corvid/mtime.h>

#include <cstdint>

namespace qopci {

struct CivilDate {
  int year = 0;  // no year 0: -1 is 1 BC
  int month = 0;
  int day = 0;
};

// The date of day number days, or all 0 when no date has it (the nil, 0, and numbers
// past the years -5867411 to 5867411).
inline CivilDate SplitDayNumber(int32_t days) {
  // z0 counts days from 1 January 1970 AD without a gap: dates from 1 AD on and before
  // 1 BC have day number z0 + 719528, those of 1 BC z0 + 719529.
  constexpr int64_t kOffset = 719528;
  if (days == CVD_DAY_NIL || days == 0) return {};
  const int64_t z0 = days >= 1 && days <= 365 ? int64_t{days} - kOffset - 1 : days - kOffset;
  // Days since 1 March of year 0 (astronomical), in 400-year eras of 146097 days.
  const int64_t z = z0 + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;                                       // [0, 146096]
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;  // [0, 399]
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);                // [0, 365]
  const int64_t mp = (5 * doy + 2) / 153;                                     // March is 0
  const int d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  const int m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  const int64_t y = yoe + era * 400 + (m <= 2 ? 1 : 0);  // astronomical: 0 is 1 BC
  const int64_t year = y <= 0 ? y - 1 : y;
  if (year < CVD_YEAR_MIN || year > CVD_YEAR_MAX) return {};
  return {static_cast<int>(year), m, d};
}

// ((year * 100 + month) * 100 + day) * 100 + hour in unsigned 32-bit arithmetic: a year
// above 2147 wraps, and so does the nil hour 0x80000000, as the stored levels have it.
inline int32_t LevelNumber(int year, int month, int day, int hour) {
  const uint32_t n = ((static_cast<uint32_t>(year) * 100u + static_cast<uint32_t>(month)) * 100u +
                      static_cast<uint32_t>(day)) *
                         100u +
                     static_cast<uint32_t>(hour);
  return static_cast<int32_t>(n);
}

// The timestamp of a date and a time of day, as TimestampChunker::InsertDateTime stores
// it: an impossible date has the nil day number, and a time with a part above its range
// has the nil time part, which, added sign-extended, lowers the day field by one.
inline int64_t MakeTimestamp(int year, int month, int day, int hour, int minute, int second,
                             int millisecond) {
  const int32_t days = cvd_date_days(year, month, day);
  const bool valid_time = hour <= 23 && minute <= 59 && second <= 59 && millisecond <= 999;
  const int64_t time = ((int64_t{hour} * 60 + minute) * 60 + second) * 1000 + millisecond;
  const int32_t msecs =
      valid_time ? static_cast<int32_t>(static_cast<uint32_t>(time)) : CVD_MSEC_NIL;
  return cvd_timestamp(days, msecs);
}

// A timestamp at midnight of day number days (the timestamp nil for the nil day).
inline int64_t Midnight(int32_t days) {
  return static_cast<int64_t>(static_cast<uint64_t>(static_cast<uint32_t>(days)) << 32);
}

}  // namespace qopci

#endif  // QOPCI_CHUNKERS_CALENDAR_H_
