// The LogClient.xml configuration, parsed.
#ifndef PLATFORM_LOGC_SRC_LOGC_CONFIG_H_
#define PLATFORM_LOGC_SRC_LOGC_CONFIG_H_

#include <map>
#include <string>

#include "logc.h"

struct LogcConfig {
  int32 nDefaultThreshold = LL_INFO;
  std::map<std::string, int32> mapThresholds;  // category name -> threshold
  bool bFileEnabled = false;
  std::string strFilePath;
  int64 nFileMaxBytes = 16LL << 20;
  int32 nFileMaxFiles = 5;
  bool bConsoleEnabled = false;
};

// Parses a level name (TRACE..FATAL, any case) or a digit 0..5; -1 if neither.
int32 logc_parse_level(const char* szLevel);

// Reads the file into *pConfig; 0 or a LOGC_E_* status. *pstrError says why.
int32 logc_load_config(const char* szPath, LogcConfig* pConfig, std::string* pstrError);

#endif  // PLATFORM_LOGC_SRC_LOGC_CONFIG_H_
