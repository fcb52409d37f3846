#ifndef KORVIX_TEXT_GLOB_H
#define KORVIX_TEXT_GLOB_H

#include <string>

namespace Korvix::Text {

// Shell-style match of the whole of text: "?" is any one character, "*" any run, "[...]" a set
// of characters and ranges ("[!...]" negated), and "\" quotes the next character. A "[" without
// its "]" is an ordinary character. With cased false both sides are folded to lower case.
bool glob_match(const std::string& pattern, const std::string& text, bool cased = true);

}  // namespace Korvix::Text

#endif
