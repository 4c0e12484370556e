// Fuzz target: the cache file opened on arbitrary contents.
//
// Input: byte 0 chooses the configured size (1 to 3 MB, 4 KiB blocks); the
// remaining bytes are the file (empty: the file is created). The file is
// opened as the service opens it at start; a damaged header or server-info
// chain must be refused with a status, never crash. When it opens, every
// entry's queue is stepped through (read, remove; a record that cannot be
// read makes the queue be dropped, as the data thread does), records taken
// from the input are appended, and the file is closed, must open again, and
// is checked. Every loop is bounded: a damaged chain that makes a step
// repeat forever shows up as libFuzzer's timeout.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <list>
#include <string>
#include <vector>

#include "CacheFile.h"
#include "CacheFileCheck.h"
#include "zd_errcode.h"

namespace {

constexpr int32 kMaxEntriesVisited = 8;
constexpr int32 kMaxStepsPerEntry = 64;
constexpr int32 kMaxSaves = 8;
constexpr int32 kReadBufferSize = 1 << 20;

std::string g_strFile;
std::vector<char> g_readBuffer(kReadBufferSize);

// Statuses a file may be refused with at open.
bool IsOpenRefusal(int32 nRet) {
  return nRet == EC_CACHE_BAD_HEADER || nRet == EC_CACHE_BAD_SRV_COUNT ||
         nRet == EC_CACHE_TOO_LARGE || nRet == EC_CACHE_BAD_CHAIN;
}

void WriteFile(const uint8_t* p, size_t n) {
  unlink(g_strFile.c_str());
  if (n == 0) return;  // no file: the open creates one
  int fd = open(g_strFile.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) abort();
  size_t nDone = 0;
  while (nDone < n) {
    ssize_t w = write(fd, p + nDone, n - nDone);
    if (w <= 0) abort();
    nDone += static_cast<size_t>(w);
  }
  close(fd);
}

// Reads and removes up to kMaxStepsPerEntry records of one entry.
void Drain(CCacheFile* pCache, SrvHandle hSrv) {
  for (int32 i = 0; i < kMaxStepsPerEntry; ++i) {
    int32 nLen = kReadBufferSize;
    int32 nRet = pCache->ReadCurRecord(hSrv, g_readBuffer.data(), &nLen);
    if (nRet == EC_CACHE_EMPTY) return;
    if (nRet == 0) nRet = pCache->DelCurRecord(hSrv);
    if (nRet != 0) {
      int32 nBlocks = 0;
      (void)pCache->DropAllRecords(hSrv, &nBlocks);
      return;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char szDir[] = "/tmp/zdfuzz_cachefile.XXXXXX";
  if (mkdtemp(szDir) == nullptr) abort();
  g_strFile = std::string(szDir) + "/fuzz_buffer.buf";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
  if (nSize < 1) return 0;
  const int32 nSizeMb = 1 + pData[0] % 3;
  WriteFile(pData + 1, nSize - 1);

  CCacheFile cache;
  std::list<SrvInfo*> listSrv;
  int32 nRet = cache.Init("fuzz", g_strFile.c_str(), nSizeMb, &listSrv);
  if (nRet != 0) {
    if (!IsOpenRefusal(nRet)) {
      fprintf(stderr, "open refused the file with unexpected status %d\n", nRet);
      abort();
    }
    return 0;
  }

  std::vector<SrvHandle> vecSrv(listSrv.begin(), listSrv.end());
  for (size_t i = 0; i < vecSrv.size() && i < kMaxEntriesVisited; ++i) Drain(&cache, vecSrv[i]);

  // Appends: records cut from the input, to the entry the service would use.
  SrvHandle hSrv = nullptr;
  if (cache.SaveSrvInfo(0x0100007f, 5000, &hSrv) == 0) {
    const size_t nPiece = 1 + (nSize - 1) / kMaxSaves;
    for (int32 i = 0; i < kMaxSaves; ++i) {
      const size_t nOff = static_cast<size_t>(i) * nPiece;
      if (nOff >= nSize) break;
      const size_t nLen = nSize - nOff < nPiece ? nSize - nOff : nPiece;
      std::vector<char> rec(pData + nOff, pData + nOff + nLen);
      (void)cache.SaveRecord(hSrv, rec.data(), static_cast<int32>(rec.size()));
    }
    Drain(&cache, hSrv);
  }
  cache.Release();

  // A file the service opened and worked on must open at its next start.
  CCacheFile again;
  std::list<SrvInfo*> listAgain;
  nRet = again.Init("fuzz", g_strFile.c_str(), nSizeMb, &listAgain);
  if (nRet != 0) {
    fprintf(stderr, "a file that opened and was worked on is refused at reopen: %d\n", nRet);
    abort();
  }
  again.Release();

  std::vector<CacheCheckFinding> findings;
  std::vector<CacheQueueStat> stats;
  (void)cache_file_check(g_strFile.c_str(), nSizeMb, &findings, &stats);
  return 0;
}
