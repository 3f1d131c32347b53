// The bounded, traced comparison that the rules use; not for callers outside the library.
#pragma once

#include <cstddef>

// As __tavrix_strcasecmp() over at most n bytes. Unlike every other member of the family it answers
// -1 when a ends within the n bytes, even where b ends at the same place: callers ask whether b
// begins with the whole of n bytes of a.
extern "C" int __tavrix_strncasecmp(const char* a, const char* b, size_t n);
