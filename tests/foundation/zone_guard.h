#ifndef VDX_TESTS_FOUNDATION_ZONE_GUARD_H
#define VDX_TESTS_FOUNDATION_ZONE_GUARD_H

#include <cstdlib>
#include <ctime>
#include <string>

// Sets the time zone of the process for one test and puts the old one back.
class ZoneGuard {
 public:
  explicit ZoneGuard(const char* zone) {
    const char* old = std::getenv("TZ");
    had = old != nullptr;
    if (had) saved = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ZoneGuard() {
    if (had)
      setenv("TZ", saved.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  ZoneGuard(const ZoneGuard&) = delete;
  ZoneGuard& operator=(const ZoneGuard&) = delete;

 private:
  bool had = false;
  std::string saved;
};

#endif
