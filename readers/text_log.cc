#include "readers/text_log.h"

#include <cstdio>

namespace qopci {

void TextLogAppend(TextLog* log, const char* prefix, const char* text) {
  if (log == nullptr || log->buffer == nullptr) return;
  // Full: no room left but the zero (a length past the capacity counts as full too).
  if (log->capacity == 0 || log->length >= log->capacity - 1) return;
  const uint32_t room = log->capacity - log->length;
  const int n = std::snprintf(log->buffer + log->length, room, "%s::%s", prefix, text);
  if (n < 0) {
    log->buffer[log->length] = '\0';
    return;
  }
  log->length += static_cast<uint32_t>(n) < room ? static_cast<uint32_t>(n) : room - 1;
}

}  // namespace qopci
