#include "foundation/log/timestamp_filter.h"

#include <ctime>

#include "foundation/text/text.h"

namespace Korvix::Log {

namespace {
constexpr uint64_t one_minute = 0x3C00000000ull;          // 60 seconds in 32.32 form
constexpr double fraction_unit = 2.3283064365386963e-10;  // 2 to the -32
constexpr size_t prefix_size = 80;
}  // namespace

void TimestampFilter::log(Message& message) {
  std::lock_guard<std::mutex> lock(mutex);
  // Level and seconds go in before strftime runs, so no "%" can come from them.
  std::string form = Text::substitute(format, "%*L", Text::int_to_text(message.level));
  double seconds = static_cast<double>(message.timestamp.value % one_minute) * fraction_unit;
  form = Text::substitute(form, "%*S", Text::double_to_text(seconds, 6, 3, true));

  time_t unix_time = static_cast<time_t>(static_cast<int64_t>(message.timestamp.value >> 32) -
                                         static_cast<int64_t>(Stamp::unix_epoch_offset));
  struct tm local = {};
  localtime_r(&unix_time, &local);
  char buffer[prefix_size];
  size_t length = std::strftime(buffer, sizeof(buffer), form.c_str(), &local);
  message.text.insert(0, buffer, length);
  next.log(message);
}

}  // namespace Korvix::Log
