#include "config_manager.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zd_errcode.h"

namespace {
constexpr int32 kWorkBufferSize = 512;
}  // namespace

int32 config_build_file_all_path_by_relative_path(char* szFileAllPath, int32 nLenPath,
                                                   const char* szCfgFileName) {
  char* szDir = static_cast<char*>(malloc(kWorkBufferSize));
  if (szDir == nullptr) {
    printf("Allocate memory for configure file name.\n");
    return EC_NO_MEMORY;
  }
  strcpy(szDir, "../");
  strcat(szDir, "config/");
  size_t nDirLen = strlen(szDir);
  size_t nNameLen = strlen(szCfgFileName);
  if (static_cast<int64>(nDirLen + nNameLen + 1) > nLenPath) {
    free(szDir);
    printf("no enough buffer for config file all path\n");
    return EC_NO_MEMORY;
  }
  memcpy(szFileAllPath, szDir, nDirLen);
  memcpy(szFileAllPath + nDirLen, szCfgFileName, nNameLen + 1);
  free(szDir);
  return 0;
}
