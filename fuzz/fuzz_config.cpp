// Fuzz target: the configuration file.
//
// Input: the contents of ZD3Buffer.xml. The target runs in a scratch tree
// with bin/ and config/ side by side, its working directory bin/, writes the
// input to ../config/ZD3Buffer.xml and loads it as the service does at
// start. A load that succeeds must leave values the rest of the start-up can
// use without further checks.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Buffer.h"

struct CBufferConfigProbe {
  static void CheckLoaded(const CBuffer& b) {
    bool bOk = b.m_nCacheFileSize >= 1 && b.m_nCacheFileSize <= 1048576 && b.m_nSendPerid > 0 &&
               b.m_nSendTimeout > 0 && b.m_nConnectTimeout > 0 &&
               memchr(b.m_szCacheFilePath, 0, sizeof(b.m_szCacheFilePath)) != nullptr &&
               memchr(b.m_szCacheFilePrefix, 0, sizeof(b.m_szCacheFilePrefix)) != nullptr &&
               memchr(b.m_szVersion, 0, sizeof(b.m_szVersion)) != nullptr &&
               memchr(b.m_szProcName, 0, sizeof(b.m_szProcName)) != nullptr;
    size_t nPath = strnlen(b.m_szCacheFilePath, sizeof(b.m_szCacheFilePath));
    bOk = bOk && nPath > 0 &&
          (b.m_szCacheFilePath[nPath - 1] == '/' || b.m_szCacheFilePath[nPath - 1] == '\\');
    if (!bOk) {
      fprintf(stderr, "configuration loaded with values out of range\n");
      abort();
    }
  }
};

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char szDir[] = "/tmp/zdfuzz_config.XXXXXX";
  if (mkdtemp(szDir) == nullptr) abort();
  std::string strRoot = szDir;
  if (mkdir((strRoot + "/bin").c_str(), 0700) != 0) abort();
  if (mkdir((strRoot + "/config").c_str(), 0700) != 0) abort();
  if (chdir((strRoot + "/bin").c_str()) != 0) abort();
  // The loader prints the path it reads on every call.
  int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (fd >= 0) dup2(fd, STDOUT_FILENO);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
  FILE* fp = fopen("../config/ZD3Buffer.xml", "wb");
  if (fp == nullptr) abort();
  if (nSize > 0 && fwrite(pData, 1, nSize, fp) != nSize) abort();
  fclose(fp);

  CBuffer buffer;
  if (buffer.LoadConfig() == 0) CBufferConfigProbe::CheckLoaded(buffer);
  return 0;
}
