// Files: positioned reads and writes that loop over EINTR and short counts,
// with a process-wide fault injector for tests (zdos_fault.h).
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "zdos.h"
#include "zdos_fault.h"

namespace {

// The armed plan is read under a mutex only when armed; the fast path is one
// relaxed load of g_bArmed and one increment.
std::atomic<bool> g_bArmed{false};
std::atomic<bool> g_bFired{false};
std::atomic<int64> g_nReads{0};
std::atomic<int64> g_nWrites{0};
std::mutex g_planMutex;
OsFaultPlan g_plan;
int64 g_nMatching = 0;  // matching calls since arming, under g_planMutex

// Counts the call; returns the errno to fail it with, or 0. For a torn write,
// *pnPartial receives the bytes to store first.
int32 CountAndCheck(int32 nOp, int32* pnPartial) {
  (nOp == OS_FAULT_READ ? g_nReads : g_nWrites).fetch_add(1, std::memory_order_relaxed);
  if (!g_bArmed.load(std::memory_order_acquire)) return 0;
  std::lock_guard<std::mutex> lock(g_planMutex);
  if ((g_plan.nOps & nOp) == 0) return 0;
  ++g_nMatching;
  bool bFail = g_nMatching == g_plan.nNth || (g_plan.bSticky && g_nMatching > g_plan.nNth);
  if (!bFail) return 0;
  g_bFired.store(true);
  if (pnPartial != nullptr) *pnPartial = g_nMatching == g_plan.nNth ? g_plan.nPartialBytes : 0;
  return g_plan.nErrno != 0 ? g_plan.nErrno : EIO;
}

int32 WriteAll(HANDLE hFile, int64 nOffset, const char* p, int32 nLen, int32* pnDone) {
  int32 nDone = 0;
  while (nDone < nLen) {
    ssize_t n = pwrite(hFile, p + nDone, static_cast<size_t>(nLen - nDone), nOffset + nDone);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (pnDone != nullptr) *pnDone = nDone;
      return errno;
    }
    if (n == 0) {  // cannot happen for a regular file; do not spin
      if (pnDone != nullptr) *pnDone = nDone;
      return EIO;
    }
    nDone += static_cast<int32>(n);
  }
  if (pnDone != nullptr) *pnDone = nDone;
  return 0;
}

}  // namespace

void os_fault_arm(const OsFaultPlan* pPlan) {
  std::lock_guard<std::mutex> lock(g_planMutex);
  g_plan = *pPlan;
  g_nMatching = 0;
  g_nReads = 0;
  g_nWrites = 0;
  g_bFired = false;
  g_bArmed.store(true, std::memory_order_release);
}

void os_fault_disarm(void) {
  std::lock_guard<std::mutex> lock(g_planMutex);
  g_bArmed.store(false, std::memory_order_release);
  g_nMatching = 0;
  g_nReads = 0;
  g_nWrites = 0;
  g_bFired = false;
}

int64 os_fault_count(int32 nOps) {
  int64 n = 0;
  if (nOps & OS_FAULT_READ) n += g_nReads.load();
  if (nOps & OS_FAULT_WRITE) n += g_nWrites.load();
  return n;
}

int32 os_fault_fired(void) { return g_bFired.load() ? 1 : 0; }

int32 os_file_access(const char* szPath, int32 nMode) {
  if (szPath == nullptr) return OS_EINVAL_ARG;
  return access(szPath, nMode) == 0 ? 0 : errno;
}

int32 os_file_open(const char* szPath, int32 nFlags, HANDLE* phFile) {
  if (szPath == nullptr || phFile == nullptr) return OS_EINVAL_ARG;
  int fd;
  do {
    fd = open(szPath, nFlags | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  *phFile = fd;
  return 0;
}

int32 os_file_get_size(HANDLE hFile, int64* pnSize) {
  if (pnSize == nullptr) return OS_EINVAL_ARG;
  struct stat st;
  if (fstat(hFile, &st) != 0) return errno;
  *pnSize = st.st_size;
  return 0;
}

int32 os_file_seek_read(HANDLE hFile, int64 nOffset, void* pBuf, int32 nLen, int32* pnDone) {
  if (pBuf == nullptr || nLen < 0 || nOffset < 0) return OS_EINVAL_ARG;
  if (pnDone != nullptr) *pnDone = 0;
  int32 nFault = CountAndCheck(OS_FAULT_READ, nullptr);
  if (nFault != 0) return nFault;
  char* p = static_cast<char*>(pBuf);
  int32 nDone = 0;
  while (nDone < nLen) {
    ssize_t n = pread(hFile, p + nDone, static_cast<size_t>(nLen - nDone), nOffset + nDone);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (pnDone != nullptr) *pnDone = nDone;
      return errno;
    }
    if (n == 0) break;  // end of file
    nDone += static_cast<int32>(n);
  }
  // A block handed out but never written lies past the end of the file: it
  // reads as zeros, as a hole in a sparse file would.
  if (nDone < nLen) memset(p + nDone, 0, static_cast<size_t>(nLen - nDone));
  if (pnDone != nullptr) *pnDone = nDone;
  return 0;
}

int32 os_file_seek_write(HANDLE hFile, int64 nOffset, const void* pBuf, int32 nLen,
                         int32* pnDone) {
  if (pBuf == nullptr || nLen < 0 || nOffset < 0) return OS_EINVAL_ARG;
  if (pnDone != nullptr) *pnDone = 0;
  int32 nPartial = 0;
  int32 nFault = CountAndCheck(OS_FAULT_WRITE, &nPartial);
  if (nFault != 0) {
    // A torn write stores a prefix of the bytes and then fails.
    if (nPartial > 0) WriteAll(hFile, nOffset, static_cast<const char*>(pBuf),
                               nPartial < nLen ? nPartial : nLen, pnDone);
    return nFault;
  }
  return WriteAll(hFile, nOffset, static_cast<const char*>(pBuf), nLen, pnDone);
}

int32 os_file_close(HANDLE hFile) {
  if (hFile < 0) return OS_EINVAL_ARG;
  // close(2) must not be retried on EINTR on Linux: the descriptor is gone.
  return close(hFile) == 0 ? 0 : errno;
}
