// Exception texts in the host's "class:place:message" form.
#include "corvid/exception.h"

#include <cstdarg>
#include <cstdio>

extern "C" {

const char* exceptionName(enum exception_type type) {
  switch (type) {
    case MAL:
      return "MALException";
    case ILLARG:
      return "IllegalArgumentException";
    case OUTOFBNDS:
      return "OutOfBoundsException";
    case IO:
      return "IOException";
    case SQL:
      return "SQLException";
  }
  return "UnknownException";
}

char* createException(enum exception_type type, const char* place, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  va_list ap2;
  va_copy(ap2, ap);
  int msg_len = std::vsnprintf(nullptr, 0, format, ap);
  va_end(ap);
  if (msg_len < 0) msg_len = 0;
  const char* name = exceptionName(type);
  if (!place) place = "";
  int head_len = std::snprintf(nullptr, 0, "%s:%s:", name, place);
  size_t total = static_cast<size_t>(head_len) + static_cast<size_t>(msg_len) + 1;
  auto* text = static_cast<char*>(GDKmalloc(total));
  if (text) {
    std::snprintf(text, total, "%s:%s:", name, place);
    std::vsnprintf(text + head_len, total - head_len, format, ap2);
  }
  va_end(ap2);
  return text;
}

}  // extern "C"
