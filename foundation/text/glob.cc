#include "foundation/text/glob.h"

#include <cctype>

namespace Korvix::Text {

namespace {

using Byte = unsigned char;

Byte fold(Byte c, bool cased) {
  return cased ? c : static_cast<Byte>(std::tolower(c));
}

// The closing bracket of a set whose members start at p, skipping quoted characters; null if
// the pattern ends first.
const Byte* set_end(const Byte* p) {
  for (; *p != 0; ++p) {
    if (*p == '\\') {
      if (*++p == 0) return nullptr;
    } else if (*p == ']') {
      return p;
    }
  }
  return nullptr;
}

// Whether t is among the members in [p, end). A quoted character is never the last before end,
// since set_end skipped it.
bool in_set(const Byte* p, const Byte* end, Byte t, bool cased) {
  bool found = false;
  while (p < end) {
    if (*p == '\\') ++p;
    Byte low = fold(*p++, cased);
    // A hyphen right before the closing bracket is an ordinary member.
    if (p + 1 < end && *p == '-') {
      ++p;
      if (*p == '\\') ++p;
      Byte high = fold(*p++, cased);
      if (low <= t && t <= high) found = true;
    } else if (low == t) {
      found = true;
    }
  }
  return found;
}

bool match(const Byte* p, const Byte* t, bool cased) {
  // Every step that doesn't return has matched; only a negated set matches the end of the text,
  // and there the text stays put.
  for (;; ++p, t += *t != 0 ? 1 : 0) {
    Byte tc = fold(*t, cased);
    switch (*p) {
      case 0:
        return *t == 0;
      case '?':
        if (*t == 0) return false;
        break;
      case '*': {
        Byte next = p[1];
        if (next != '?' && next != '\\' && next != '[' && next != '*' && fold(next, cased) != tc) {
          Byte wanted = fold(next, cased);
          while (*t != 0 && fold(*t, cased) != wanted) ++t;
          if (*t == 0 && next != 0) return false;
        }
        for (;; ++t) {
          if (match(p + 1, t, cased)) return true;
          if (*t == 0) return false;
        }
      }
      case '[': {
        const Byte* end = set_end(p + 1);
        if (end == nullptr) {
          if (tc != '[') return false;
          break;
        }
        bool negated = p[1] == '!';
        bool member = in_set(negated ? p + 2 : p + 1, end, tc, cased);
        if (member == negated) return false;
        p = end;
        break;
      }
      case '\\':
        ++p;
        if (*p == 0) return *t == 0;
        if (fold(*p, cased) != tc) return false;
        break;
      default:
        if (fold(*p, cased) != tc) return false;
        break;
    }
  }
}

}  // namespace

bool glob_match(const std::string& pattern, const std::string& text, bool cased) {
  return match(reinterpret_cast<const Byte*>(pattern.c_str()),
               reinterpret_cast<const Byte*>(text.c_str()), cased);
}

}  // namespace Korvix::Text
