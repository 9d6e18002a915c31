/* corvid time atoms: how dates, daytimes and timestamps are stored.
 *
 * date: a 32-bit day number (below); daytime: 32-bit milliseconds since midnight;
 * timestamp: 64 bits, the day number in the high 32 bits and the milliseconds in the low 32.
 * The 32-bit nil of either half is 0x80000000; the timestamp nil is lng_nil.
 * Threading: pure functions. */
#ifndef CORVID_MTIME_H_
#define CORVID_MTIME_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CVD_DAY_NIL ((int32_t)INT32_MIN)
#define CVD_MSEC_NIL ((int32_t)INT32_MIN)
#define CVD_YEAR_MAX 5867411
#define CVD_YEAR_MIN (-5867411)

static inline int cvd_leapyear(int64_t y) {
  return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
}

static inline int cvd_monthdays(int64_t y, int month) {
  static const int kDays[13] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && cvd_leapyear(y) ? 29 : kDays[month];
}

/* Day number of (day, month, year). There is no year 0: year -1 is counted as y = 0, and
 * y = year + 1 for every negative year. Leap years before y are counted with the rule
 * below, which makes y = 0 and y = 1 overlap by one day; kept, as stored data depends on
 * it. CVD_DAY_NIL for an impossible date or a year out of range. */
static inline int32_t cvd_date_days(int64_t year, int month, int day) {
  static const int kBefore[13] = {0, 0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  if (month < 1 || month > 12 || day < 1 || year == 0 || year < CVD_YEAR_MIN ||
      year > CVD_YEAR_MAX)
    return CVD_DAY_NIL;
  int64_t y = year < 0 ? year + 1 : year;
  if (day > cvd_monthdays(y, month)) return CVD_DAY_NIL;
  int64_t n = y * 365 + kBefore[month] + (day - 1) + (month > 2 && cvd_leapyear(y) ? 1 : 0);
  if (y >= 0)
    n += (y - 1) / 4 - (y - 1) / 100 + (y - 1) / 400 + 1;
  else
    n += y / 4 - y / 100 + y / 400;
  return (int32_t)n;
}

/* The timestamp of a day number and a time part: (days << 32) plus the time part
 * sign-extended, so a nil time part lowers the day field by one. */
static inline int64_t cvd_timestamp(int32_t days, int32_t msecs) {
  return (int64_t)(((uint64_t)(uint32_t)days << 32) + (uint64_t)(int64_t)msecs);
}

static inline int32_t cvd_timestamp_days(int64_t ts) { return (int32_t)(ts >> 32); }
static inline int32_t cvd_timestamp_msecs(int64_t ts) { return (int32_t)(uint32_t)ts; }

/* Inverse of cvd_date_days: the first (year, month, day) with that day number. Returns 0,
 * or -1 for CVD_DAY_NIL or a number out of range. */
static inline int cvd_date_from_days(int32_t days, int* year, int* month, int* day) {
  if (days == CVD_DAY_NIL) return -1;
  int64_t y = (int64_t)((double)days / 365.2425);
  /* Find y with days(y, 1, 1) <= days < days(y + 1, 1, 1), in the y numbering. */
  for (;;) {
    int64_t yr = y <= 0 ? y - 1 : y;
    if (yr < CVD_YEAR_MIN || yr > CVD_YEAR_MAX) return -1;
    int32_t first = cvd_date_days(yr, 1, 1);
    if (days < first) { y--; continue; }
    int64_t ynext = y + 1, yrnext = ynext <= 0 ? ynext - 1 : ynext;
    if (yrnext <= CVD_YEAR_MAX && days >= cvd_date_days(yrnext, 1, 1)) { y++; continue; }
    int m = 1;
    while (m < 12 && days >= cvd_date_days(yr, m + 1, 1)) m++;
    *year = (int)yr;
    *month = m;
    *day = days - cvd_date_days(yr, m, 1) + 1;
    return 0;
  }
}

#ifdef __cplusplus
}
#endif

#endif /* CORVID_MTIME_H_ */
