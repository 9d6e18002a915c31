// The farm's transaction logger: numbered log files in "log/" that record restarts and
// commits, so that an operator can see which catalog generation each run left behind.
// Threading: as the buffer pool.
#ifndef CORVID_SRC_LOGGER_H_
#define CORVID_SRC_LOGGER_H_

#include <string>

#include "corvid/gdk.h"

namespace corvid {

// Finds the newest log file; never fails. A read-only logger writes and removes nothing:
// restart and cleanup fail, notes are dropped.
logger* LoggerOpen(const std::string& dir, bool read_only);
void LoggerClose(logger* lg);  // frees lg
// Appends one line to the current log file (none before the first restart) and flushes it.
bool LoggerNote(logger* lg, const std::string& line);

}  // namespace corvid

#endif  // CORVID_SRC_LOGGER_H_
