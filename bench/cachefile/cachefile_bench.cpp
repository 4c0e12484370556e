// Throughput of SaveRecord, ReadCurRecord and DelCurRecord against a raw
// pwrite/pread loop that moves the same bytes, in the same directory, in the
// same file state:
//   fresh  - a new file that grows as it is written;
//   reused - blocks (or file bytes) already written once and overwritten.
// Prints a table of medians over several runs and the ratios to the raw
// loop measured in the same run.
//
//   cachefile_bench [dir] [runs] [only]
// (default: current directory, 5 runs, every row). `only` picks one block
// size and record size, e.g. "4M/64K" or "4K/1M", for profiling one row.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <string>
#include <vector>

#include "CacheFile.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

struct Config {
  const char* szBlock;
  const char* szOnly;  // its name for the `only` argument
  int32 nSizeMb;  // decides the block size: < 40 MB gives 4 KiB blocks
  int32 nRecLen;
  int64 nTotalBytes;  // moved per phase
};

struct Times {
  double fSaveFresh, fReadFresh, fDelFresh, fSaveReused, fReadReused, fDelReused;
  double fRawWriteFresh, fRawReadFresh, fRawWriteReused, fRawReadReused;
};

// The raw baseline: one pwrite or pread per record at increasing offsets.
double RawWrite(int fd, const std::vector<char>& rec, int64 nCount) {
  auto t0 = Clock::now();
  for (int64 i = 0; i < nCount; ++i) {
    if (pwrite(fd, rec.data(), rec.size(),
               static_cast<off_t>(i * static_cast<int64>(rec.size()))) !=
        static_cast<ssize_t>(rec.size())) {
      perror("pwrite");
      exit(1);
    }
  }
  return Seconds(t0, Clock::now());
}
double RawRead(int fd, std::vector<char>* pBuf, int64 nCount) {
  auto t0 = Clock::now();
  for (int64 i = 0; i < nCount; ++i) {
    if (pread(fd, pBuf->data(), pBuf->size(),
              static_cast<off_t>(i * static_cast<int64>(pBuf->size()))) !=
        static_cast<ssize_t>(pBuf->size())) {
      perror("pread");
      exit(1);
    }
  }
  return Seconds(t0, Clock::now());
}

bool RunCache(CCacheFile* pCache, SrvHandle h, std::vector<char>* pRec, int64 nCount,
              double* pfSave, double* pfRead, double* pfDel) {
  auto t0 = Clock::now();
  for (int64 i = 0; i < nCount; ++i) {
    if (pCache->SaveRecord(h, pRec->data(), static_cast<int32>(pRec->size())) != 0) return false;
  }
  auto t1 = Clock::now();
  // Reads and removals are timed separately but interleaved as the service
  // runs them: read the oldest, then remove it.
  std::vector<char> buf(pRec->size());
  double fRead = 0, fDel = 0;
  for (int64 i = 0; i < nCount; ++i) {
    int32 nLen = static_cast<int32>(buf.size());
    auto a = Clock::now();
    if (pCache->ReadCurRecord(h, buf.data(), &nLen) != 0) return false;
    auto b = Clock::now();
    if (pCache->DelCurRecord(h) != 0) return false;
    auto c = Clock::now();
    fRead += Seconds(a, b);
    fDel += Seconds(b, c);
  }
  *pfSave = Seconds(t0, t1);
  *pfRead = fRead;
  *pfDel = fDel;
  return true;
}

Times RunOnce(const Config& c, const std::string& strDir) {
  Times t{};
  std::string strCache = strDir + "/bench_cache.buf";
  std::string strRaw = strDir + "/bench_raw.bin";
  unlink(strCache.c_str());
  unlink(strRaw.c_str());
  std::vector<char> rec(static_cast<size_t>(c.nRecLen));
  for (size_t i = 0; i < rec.size(); ++i) rec[i] = static_cast<char>(i * 131 + 7);
  const int64 nCount = c.nTotalBytes / c.nRecLen;

  CCacheFile cache;
  std::list<SrvInfo*> list;
  if (cache.Init("bench", strCache.c_str(), c.nSizeMb, &list) != 0) {
    fprintf(stderr, "Init failed\n");
    exit(1);
  }
  SrvHandle h = nullptr;
  if (cache.SaveSrvInfo(0x0100007f, 1, &h) != 0) exit(1);
  int fd = open(strRaw.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) exit(1);
  std::vector<char> buf(rec.size());

  // Fresh: both files grow.
  t.fRawWriteFresh = RawWrite(fd, rec, nCount);
  t.fRawReadFresh = RawRead(fd, &buf, nCount);
  if (!RunCache(&cache, h, &rec, nCount, &t.fSaveFresh, &t.fReadFresh, &t.fDelFresh)) {
    fprintf(stderr, "cache run failed\n");
    exit(1);
  }
  // Reused: the blocks are idle now and the raw file is overwritten.
  t.fRawWriteReused = RawWrite(fd, rec, nCount);
  t.fRawReadReused = RawRead(fd, &buf, nCount);
  if (!RunCache(&cache, h, &rec, nCount, &t.fSaveReused, &t.fReadReused, &t.fDelReused)) {
    fprintf(stderr, "cache run failed\n");
    exit(1);
  }
  close(fd);
  cache.Release();
  unlink(strCache.c_str());
  unlink(strRaw.c_str());
  return t;
}

}  // namespace

int main(int argc, char** argv) {
  std::string strDir = argc > 1 ? argv[1] : ".";
  int nRuns = argc > 2 ? atoi(argv[2]) : 5;
  const char* szOnly = argc > 3 ? argv[3] : nullptr;
  const int64 kMiB = 1024 * 1024;
  const Config configs[] = {
      {"4 KiB", "4K/1K", 39, 1024, 16 * kMiB},     {"4 KiB", "4K/64K", 39, 65536, 32 * kMiB},
      {"4 KiB", "4K/1M", 39, 1048576, 32 * kMiB},  {"4 MiB", "4M/1K", 400, 1024, 32 * kMiB},
      {"4 MiB", "4M/64K", 400, 65536, 128 * kMiB}, {"4 MiB", "4M/1M", 400, 1048576, 128 * kMiB},
  };
  printf("cache file vs raw pwrite/pread, MB/s (medians of %d runs), ratio = cache / raw\n", nRuns);
  printf("%-6s %-8s %-7s | %9s %9s %6s | %9s %9s %9s %6s\n", "block", "record", "state", "save",
         "raw wr", "ratio", "read", "read+del", "raw rd", "ratio");
  for (const Config& c : configs) {
    if (szOnly != nullptr && strcmp(szOnly, c.szOnly) != 0) continue;
    std::vector<Times> runs;
    for (int r = 0; r < nRuns; ++r) runs.push_back(RunOnce(c, strDir));
    const double fMb = static_cast<double>(c.nTotalBytes) / 1e6;
    for (int nState = 0; nState < 2; ++nState) {
      std::vector<double> save, rawWr, read, readDel, rawRd, ratioWr, ratioRd;
      for (const Times& t : runs) {
        double s = nState == 0 ? t.fSaveFresh : t.fSaveReused;
        double rw = nState == 0 ? t.fRawWriteFresh : t.fRawWriteReused;
        double rd = nState == 0 ? t.fReadFresh : t.fReadReused;
        double dl = nState == 0 ? t.fDelFresh : t.fDelReused;
        double rr = nState == 0 ? t.fRawReadFresh : t.fRawReadReused;
        save.push_back(fMb / s);
        rawWr.push_back(fMb / rw);
        read.push_back(fMb / rd);
        readDel.push_back(fMb / (rd + dl));
        rawRd.push_back(fMb / rr);
        ratioWr.push_back(rw / s);
        ratioRd.push_back(rr / (rd + dl));
      }
      char szRec[16];
      snprintf(szRec, sizeof(szRec), c.nRecLen >= 1048576 ? "%d MiB" : "%d KiB",
               c.nRecLen >= 1048576 ? c.nRecLen / 1048576 : c.nRecLen / 1024);
      printf("%-6s %-8s %-7s | %9.0f %9.0f %6.2f | %9.0f %9.0f %9.0f %6.2f\n", c.szBlock, szRec,
             nState == 0 ? "fresh" : "reused", Median(save), Median(rawWr), Median(ratioWr),
             Median(read), Median(readDel), Median(rawRd), Median(ratioRd));
      fflush(stdout);
    }
  }
  return 0;
}
