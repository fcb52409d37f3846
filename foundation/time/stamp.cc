#include "foundation/time/stamp.h"

#include <sys/time.h>

#include <cmath>
#include <cstdio>
#include <ctime>

#include "foundation/text/text.h"

namespace Korvix {

namespace {

constexpr int64_t seconds_a_day = 86400;
constexpr double fraction_scale = 4294967296.0;  // 2 to the 32

// Days before each month in a year without a leap day.
constexpr int32_t days_before_month[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

// Days from 1 January 1900 to the given date, month 1 to 12. The year is counted from March, so
// that its leap day falls last and y/4 - y/100 + y/400 counts the leap days before the date;
// January and February then belong to the year before and get that year's 365 days back.
int64_t days_since_epoch(int64_t year, int32_t month, int32_t day) {
  bool early = month <= 2;
  int64_t y = early ? year - 1 : year;
  return 365 * y + y / 4 - y / 100 + y / 400 - 693960 + days_before_month[month - 1] + day - 1 +
         (early ? 365 : 0);
}

uint32_t whole_seconds(uint64_t value) {
  return static_cast<uint32_t>(value >> 32);
}
uint32_t fraction_bits(uint64_t value) {
  return static_cast<uint32_t>(value);
}

// Seconds of a stamp as a struct tm in UTC, for strftime.
struct tm to_tm(const Stamp& stamp) {
  BrokenDownTime time = stamp.broken_down();
  struct tm result = {};
  result.tm_year = time.year - 1900;
  result.tm_mon = time.month - 1;
  result.tm_mday = time.day;
  result.tm_hour = time.hour;
  result.tm_min = time.min;
  result.tm_sec = static_cast<int>(time.sec);
  result.tm_wday = stamp.weekday() % 7;
  result.tm_yday = static_cast<int>(days_since_epoch(time.year, time.month, time.day) -
                                    days_since_epoch(time.year, 1, 1));
  return result;
}

std::string format(const Stamp& stamp, const char* form) {
  struct tm time = to_tm(stamp);
  char buffer[40];
  size_t length = std::strftime(buffer, sizeof(buffer), form, &time);
  return std::string(buffer, length);
}

std::string two_digits(int32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "%02d", value);
  return text;
}

// Reads count digits at position; false if the text ends or holds anything else.
bool read_digits(const std::string& text, size_t& position, int count, int32_t& value) {
  value = 0;
  for (int i = 0; i < count; ++i, ++position) {
    if (position >= text.size() || text[position] < '0' || text[position] > '9') return false;
    value = value * 10 + (text[position] - '0');
  }
  return true;
}

void skip_optional(const std::string& text, size_t& position, char c) {
  if (position < text.size() && text[position] == c) ++position;
}

}  // namespace

Stamp::Stamp(const BrokenDownTime& time) {
  if (time.month < 1 || time.month > 12) return;
  // Seconds far outside any calendar, and NaN, count as 0.
  double whole = 0.0;
  double fraction = 0.0;
  if (time.sec > -1e12 && time.sec < 1e12) {
    whole = std::floor(time.sec);
    fraction = time.sec - whole;
  }
  int64_t seconds = days_since_epoch(time.year, time.month, time.day) * seconds_a_day +
                    int64_t{time.hour} * 3600 + int64_t{time.min} * 60 +
                    static_cast<int64_t>(whole);
  double scaled = std::floor(fraction * fraction_scale);
  uint64_t low = scaled >= fraction_scale ? 0xFFFFFFFFu : static_cast<uint64_t>(scaled);
  value = (uint64_t{static_cast<uint32_t>(seconds)} << 32) | low;
}

Stamp Stamp::from_unix(int64_t seconds, int64_t microseconds) {
  uint64_t high = static_cast<uint64_t>(seconds) + unix_epoch_offset;
  uint64_t low = (static_cast<uint64_t>(microseconds) << 32) / 1000000;
  return Stamp((high << 32) + low);
}

Stamp Stamp::now() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return from_unix(tv.tv_sec, tv.tv_usec);
}

Stamp Stamp::from_iso(const std::string& text) {
  if (text.size() < 15) return Stamp();
  BrokenDownTime time;
  size_t position = 0;
  int32_t sec = 0;
  if (!read_digits(text, position, 4, time.year)) return Stamp();
  skip_optional(text, position, '-');
  if (!read_digits(text, position, 2, time.month)) return Stamp();
  skip_optional(text, position, '-');
  if (!read_digits(text, position, 2, time.day)) return Stamp();
  if (position >= text.size() || (text[position] != ' ' && text[position] != 'T')) return Stamp();
  ++position;
  if (!read_digits(text, position, 2, time.hour)) return Stamp();
  skip_optional(text, position, ':');
  if (!read_digits(text, position, 2, time.min)) return Stamp();
  skip_optional(text, position, ':');
  if (!read_digits(text, position, 2, sec)) return Stamp();
  time.sec = sec;
  if (position < text.size() && text[position] == '.') {
    double scale = 0.1;
    for (++position; position < text.size() && text[position] >= '0' && text[position] <= '9';
         ++position, scale /= 10)
      time.sec += (text[position] - '0') * scale;
  }
  return Stamp(time);
}

BrokenDownTime Stamp::broken_down() const {
  int64_t seconds = whole_seconds(value);
  int64_t days = seconds / seconds_a_day;
  int64_t rest = seconds % seconds_a_day;
  // Civil date from a day count, in 400-year eras that start on 1 March; day 0 of the count
  // below is 1 March of year 0.
  int64_t z = days + 693901;
  int64_t era = z / 146097;
  int64_t day_of_era = z - era * 146097;
  int64_t year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  int64_t month_from_march = (5 * day_of_year + 2) / 153;
  BrokenDownTime time;
  time.day = static_cast<int32_t>(day_of_year - (153 * month_from_march + 2) / 5 + 1);
  time.month =
      static_cast<int32_t>(month_from_march < 10 ? month_from_march + 3 : month_from_march - 9);
  time.year = static_cast<int32_t>(year_of_era + era * 400 + (time.month <= 2 ? 1 : 0));
  time.hour = static_cast<int32_t>(rest / 3600);
  time.min = static_cast<int32_t>(rest / 60 % 60);
  time.sec = static_cast<double>(rest % 60) + fraction_bits(value) / fraction_scale;
  return time;
}

int32_t Stamp::weekday() const {
  return static_cast<int32_t>(whole_seconds(value) / seconds_a_day % 7) + 1;
}

std::string Stamp::date_time_text() const {
  return format(*this, "%x %H:%M");
}

std::string Stamp::time_text() const {
  return format(*this, "%X");
}

std::string Stamp::date_text() const {
  return format(*this, "%x");
}

std::string Stamp::gmt_text() const {
  if (value == 0) return std::string();
  return format(*this, "%a, %d %b %Y %T GMT");
}

std::string Stamp::iso_compact() const {
  return iso_date("") + "T" + iso_time("", true);
}

std::string Stamp::iso_date(const std::string& separator) const {
  BrokenDownTime time = broken_down();
  char year[16];
  std::snprintf(year, sizeof(year), "%04d", time.year);
  return year + separator + two_digits(time.month) + separator + two_digits(time.day);
}

std::string Stamp::iso_time(const std::string& separator, bool seconds) const {
  BrokenDownTime time = broken_down();
  std::string text = two_digits(time.hour) + separator + two_digits(time.min);
  if (seconds) text += separator + two_digits(static_cast<int32_t>(time.sec));
  return text;
}

std::string Stamp::iso() const {
  BrokenDownTime time = broken_down();
  double seconds = std::floor(time.sec * 1000.0) / 1000.0;
  return iso_date("-") + "T" + iso_time(":", false) + ":" +
         Text::double_to_text(seconds, 6, 3, true) + "Z";
}

Stamp Stamp::utc_to_local() const {
  time_t unix_time =
      static_cast<time_t>(int64_t{whole_seconds(value)} - static_cast<int64_t>(unix_epoch_offset));
  struct tm local;
  if (localtime_r(&unix_time, &local) == nullptr) return Stamp();
  BrokenDownTime time{local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                      local.tm_hour,        local.tm_min,     static_cast<double>(local.tm_sec)};
  return Stamp(Stamp(time).value | fraction_bits(value));
}

Stamp Stamp::local_to_utc() const {
  struct tm local = to_tm(*this);
  local.tm_isdst = -1;
  time_t unix_time = std::mktime(&local);
  uint64_t seconds = static_cast<uint64_t>(static_cast<int64_t>(unix_time)) + unix_epoch_offset;
  return Stamp((uint64_t{static_cast<uint32_t>(seconds)} << 32) | fraction_bits(value));
}

}  // namespace Korvix
