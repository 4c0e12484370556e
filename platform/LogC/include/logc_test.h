// Test support for LogC: an in-memory appender that keeps every line, so that
// tests can assert both a result and what was reported. C++ only.
#ifndef PLATFORM_LOGC_INCLUDE_LOGC_TEST_H_
#define PLATFORM_LOGC_INCLUDE_LOGC_TEST_H_

#include <string>
#include <vector>

#include "logc.h"

struct LogcCapturedLine {
  int32 nLevel;
  int32 nCode;
  std::string strCategory;
  std::string strMessage;
};

// Starts LogC with the in-memory appender only (synchronous); every category
// gets nThreshold. Call logc_finish to stop, as after logc_init.
int32 logc_init_capture(int32 nThreshold);

// The lines captured since the last call (or since logc_init_capture).
std::vector<LogcCapturedLine> logc_capture_take();

// True when some captured line (not yet taken) has that level and code and
// contains szText; nCode < 0 matches any code.
bool logc_capture_has(int32 nLevel, int32 nCode, const char* szText);

#endif  // PLATFORM_LOGC_INCLUDE_LOGC_TEST_H_
