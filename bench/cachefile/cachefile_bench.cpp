// Throughput of SaveRecord, ReadCurRecord and DelCurRecord against two raw
// pwrite/pread loops, one call per record, in the same directory and the
// same file state:
//   fresh  - a new file that grows as it is written;
//   reused - blocks (or file bytes) already written once and overwritten.
// The two raw loops:
//   aligned - the records alone, back to back: every 64 KiB record starts
//             on a page;
//   stream  - what the cache file holds, each record behind its 4-byte
//             length, back to back: records start 4 bytes further each time,
//             as in the cache file's blocks.
// The page cache is faster with the first (larger folios); the second
// isolates what the cache file's own code costs. Prints a table of medians
// over several runs and the ratios to the raw loops measured in the same run.
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
  int32 nSizeMb;       // decides the block size: < 40 MB gives 4 KiB blocks
  int32 nRecLen;
  int64 nTotalBytes;  // moved per phase
};

// One raw loop's times: [state][0 = aligned, 1 = stream].
struct RawTimes {
  double fWrite, fRead;
};

struct Times {
  double fSaveFresh, fReadFresh, fDelFresh, fSaveReused, fReadReused, fDelReused;
  RawTimes raw[2][2];
};

// One pwrite or pread of `rec` per record at increasing offsets.
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

// Both raw loops, fresh then reused, each on a file of its own.
void RunRaw(const std::string& strDir, const std::vector<char>& rec, int64 nCount,
            RawTimes (*pRaw)[2]) {
  std::vector<char> stream(rec.size() + 4);
  const int32 nLen = static_cast<int32>(rec.size());
  memcpy(stream.data(), &nLen, 4);
  memcpy(stream.data() + 4, rec.data(), rec.size());
  for (int nLayout = 0; nLayout < 2; ++nLayout) {
    const std::vector<char>& bytes = nLayout == 0 ? rec : stream;
    std::string strRaw = strDir + (nLayout == 0 ? "/bench_raw.bin" : "/bench_stream.bin");
    int fd = open(strRaw.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) exit(1);
    std::vector<char> buf(bytes.size());
    for (int nState = 0; nState < 2; ++nState) {
      pRaw[nState][nLayout].fWrite = RawWrite(fd, bytes, nCount);
      pRaw[nState][nLayout].fRead = RawRead(fd, &buf, nCount);
    }
    close(fd);
    unlink(strRaw.c_str());
  }
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
  unlink(strCache.c_str());
  std::vector<char> rec(static_cast<size_t>(c.nRecLen));
  for (size_t i = 0; i < rec.size(); ++i) rec[i] = static_cast<char>(i * 131 + 7);
  const int64 nCount = c.nTotalBytes / c.nRecLen;

  RunRaw(strDir, rec, nCount, t.raw);

  CCacheFile cache;
  std::list<SrvInfo*> list;
  if (cache.Init("bench", strCache.c_str(), c.nSizeMb, &list) != 0) {
    fprintf(stderr, "Init failed\n");
    exit(1);
  }
  SrvHandle h = nullptr;
  if (cache.SaveSrvInfo(0x0100007f, 1, &h) != 0) exit(1);
  // Fresh: the file grows. Reused: the blocks are idle now and taken again.
  if (!RunCache(&cache, h, &rec, nCount, &t.fSaveFresh, &t.fReadFresh, &t.fDelFresh) ||
      !RunCache(&cache, h, &rec, nCount, &t.fSaveReused, &t.fReadReused, &t.fDelReused)) {
    fprintf(stderr, "cache run failed\n");
    exit(1);
  }
  cache.Release();
  unlink(strCache.c_str());
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
  printf("cache file vs raw pwrite/pread loops, MB/s of records (medians of %d runs)\n", nRuns);
  printf("aligned = the records alone, back to back; stream = each behind its 4-byte length\n");
  printf("%-6s %-7s %-7s | %6s %7s %5s %7s %5s | %6s %8s %7s %5s %7s %5s\n", "block", "record",
         "state", "save", "aligned", "ratio", "stream", "ratio", "read", "read+del", "aligned",
         "ratio", "stream", "ratio");
  for (const Config& c : configs) {
    if (szOnly != nullptr && strcmp(szOnly, c.szOnly) != 0) continue;
    std::vector<Times> runs;
    for (int r = 0; r < nRuns; ++r) runs.push_back(RunOnce(c, strDir));
    const double fMb = static_cast<double>(c.nTotalBytes) / 1e6;
    for (int nState = 0; nState < 2; ++nState) {
      // Rates and ratios per run, then medians of each column.
      std::vector<double> col[11];
      for (const Times& t : runs) {
        const double s = nState == 0 ? t.fSaveFresh : t.fSaveReused;
        const double rd = nState == 0 ? t.fReadFresh : t.fReadReused;
        const double rdDel = rd + (nState == 0 ? t.fDelFresh : t.fDelReused);
        const RawTimes& aligned = t.raw[nState][0];
        const RawTimes& stream = t.raw[nState][1];
        const double v[11] = {fMb / s,
                              fMb / aligned.fWrite,
                              aligned.fWrite / s,
                              fMb / stream.fWrite,
                              stream.fWrite / s,
                              fMb / rd,
                              fMb / rdDel,
                              fMb / aligned.fRead,
                              aligned.fRead / rdDel,
                              fMb / stream.fRead,
                              stream.fRead / rdDel};
        for (int k = 0; k < 11; ++k) col[k].push_back(v[k]);
      }
      char szRec[16];
      snprintf(szRec, sizeof(szRec), c.nRecLen >= 1048576 ? "%d MiB" : "%d KiB",
               c.nRecLen >= 1048576 ? c.nRecLen / 1048576 : c.nRecLen / 1024);
      printf(
          "%-6s %-7s %-7s | %6.0f %7.0f %5.2f %7.0f %5.2f | %6.0f %8.0f %7.0f %5.2f %7.0f %5.2f\n",
          c.szBlock, szRec, nState == 0 ? "fresh" : "reused", Median(col[0]), Median(col[1]),
          Median(col[2]), Median(col[3]), Median(col[4]), Median(col[5]), Median(col[6]),
          Median(col[7]), Median(col[8]), Median(col[9]), Median(col[10]));
      fflush(stdout);
    }
  }
  return 0;
}
