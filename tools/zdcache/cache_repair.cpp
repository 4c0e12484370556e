#include "cache_repair.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "CacheFileCheck.h"
#include "CacheFileFormat.h"
#include "cache_reader.h"
#include "zdcache.h"

using namespace cachefile;

namespace {

// Closes a descriptor at scope end.
class CFd {
 public:
  explicit CFd(int nFd = -1) : m_nFd(nFd) {}
  ~CFd() {
    if (m_nFd >= 0) close(m_nFd);
  }
  CFd(const CFd&) = delete;
  CFd& operator=(const CFd&) = delete;
  int Get() const { return m_nFd; }
  void Reset(int nFd) {
    if (m_nFd >= 0) close(m_nFd);
    m_nFd = nFd;
  }

 private:
  int m_nFd;
};

int32 WriteFull(int nFd, int64 nOffset, const void* pBuf, int32 nLen) {
  const char* p = static_cast<const char*>(pBuf);
  int32 nDone = 0;
  while (nDone < nLen) {
    ssize_t n = pwrite(nFd, p + nDone, static_cast<size_t>(nLen - nDone), nOffset + nDone);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    nDone += static_cast<int32>(n);
  }
  return 0;
}

// Another process with the file open: the service holds its cache file open
// from start to stop. Compares device and inode of every /proc/<pid>/fd
// entry we may look at; processes of other users are invisible without
// privilege, but so is their file to our writes.
int FindHolder(const struct stat& stFile) {
  DIR* pProc = opendir("/proc");
  if (pProc == nullptr) return 0;
  int nHolder = 0;
  const pid_t nSelf = getpid();
  while (nHolder == 0) {
    struct dirent* pEnt = readdir(pProc);
    if (pEnt == nullptr) break;
    char* pEnd = nullptr;
    long nPid = strtol(pEnt->d_name, &pEnd, 10);
    if (*pEnd != '\0' || nPid <= 0 || nPid == nSelf) continue;
    std::string strFdDir = std::string("/proc/") + pEnt->d_name + "/fd";
    DIR* pFds = opendir(strFdDir.c_str());
    if (pFds == nullptr) continue;
    while (struct dirent* pFd = readdir(pFds)) {
      if (pFd->d_name[0] == '.') continue;
      struct stat st;
      std::string strFd = strFdDir + "/" + pFd->d_name;
      if (stat(strFd.c_str(), &st) == 0 && st.st_dev == stFile.st_dev &&
          st.st_ino == stFile.st_ino) {
        nHolder = static_cast<int>(nPid);
        break;
      }
    }
    closedir(pFds);
  }
  closedir(pProc);
  return nHolder;
}

// Copies szFrom to a new szTo (mode 0600); the copy stays open in *pFd.
int32 CopyFile(int nFromFd, const char* szTo, CFd* pFd) {
  unlink(szTo);  // a leftover of an interrupted repair: never a cache file in use
  int nFd = open(szTo, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (nFd < 0) return errno;
  pFd->Reset(nFd);
  std::vector<char> buf(1 << 20);
  int64 nOffset = 0;
  while (true) {
    ssize_t n = pread(nFromFd, buf.data(), buf.size(), nOffset);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) break;
    int32 nRet = WriteFull(nFd, nOffset, buf.data(), static_cast<int32>(n));
    if (nRet != 0) return nRet;
    nOffset += n;
  }
  return 0;
}

// Rewrites every server-info block that holds a duplicate without it: the
// remaining entries keep their order and move up, the count falls, and the
// slots behind the count are zeroed (they would hold stale credentials).
int32 DropDuplicates(int nFd, CCacheReader* pReader, const CacheHeaderView& h, int32* pnDropped) {
  std::vector<CacheEntryView> entries;
  std::vector<int32> sibBlocks;
  int32 nRet = pReader->LoadEntries(&entries, &sibBlocks);
  if (nRet != 0) return nRet;
  const int32 nBs = h.nBlockSize;
  std::vector<char> block(static_cast<size_t>(nBs));
  for (int32 nBlock : sibBlocks) {
    bool bAny = false;
    for (const CacheEntryView& e : entries) bAny = bAny || (e.nBlockNo == nBlock && e.bDuplicate);
    if (!bAny) continue;
    nRet = pReader->ReadAt(BlockOffset(nBlock, nBs), block.data(), nBs);
    if (nRet != 0) break;
    int32 nKept = 0;
    for (const CacheEntryView& e : entries) {
      if (e.nBlockNo != nBlock) continue;
      if (e.bDuplicate) {
        ++*pnDropped;
        continue;
      }
      ++nKept;
      if (nKept != e.nSlot) {
        memmove(block.data() + kSibHeaderSize + static_cast<int64>(nKept - 1) * kEntrySize,
                block.data() + kSibHeaderSize + static_cast<int64>(e.nSlot - 1) * kEntrySize,
                kEntrySize);
      }
    }
    int32 nCount = 0;
    memcpy(&nCount, block.data() + kSibCountOffset, 4);
    memset(block.data() + kSibHeaderSize + static_cast<int64>(nKept) * kEntrySize, 0,
           static_cast<size_t>(nCount - nKept) * kEntrySize);
    memcpy(block.data() + kSibCountOffset, &nKept, 4);
    nRet = WriteFull(nFd, BlockOffset(nBlock, nBs), block.data(), nBs);
    if (nRet != 0) break;
  }
  explicit_bzero(block.data(), block.size());
  return nRet;
}

// Pushes every block that belongs to nothing on the idle list: each block's
// link first, the header's idle head last.
int32 ReturnLeaks(int nFd, CCacheReader* pReader, const CacheHeaderView& h, int32* pnReturned) {
  const int32 nTotal = h.nTotalBlockNum;
  const int32 nBs = h.nBlockSize;
  std::vector<bool> vecOwned(static_cast<size_t>(nTotal), false);
  std::vector<CacheEntryView> entries;
  std::vector<int32> blocks;
  int32 nRet = pReader->LoadEntries(&entries, &blocks);
  if (nRet != 0) return nRet;
  for (int32 n : blocks) vecOwned[static_cast<size_t>(n)] = true;
  for (const CacheEntryView& e : entries) {
    if (!e.HasRecords() || e.bDuplicate) continue;
    nRet = pReader->LoadChain(e, &blocks);
    if (nRet != 0) return nRet;
    for (int32 n : blocks) vecOwned[static_cast<size_t>(n)] = true;
  }
  for (int32 n = h.nIdleHeadNo; n > 0 && n < nTotal && !vecOwned[static_cast<size_t>(n)];) {
    vecOwned[static_cast<size_t>(n)] = true;
    nRet = pReader->ReadAt(BlockOffset(n, nBs), &n, 4);
    if (nRet != 0) return nRet;
  }
  int32 nHead = h.nIdleHeadNo;
  for (int32 n = 1; n < nTotal; ++n) {
    if (vecOwned[static_cast<size_t>(n)]) continue;
    nRet = WriteFull(nFd, BlockOffset(n, nBs) + kNextLinkOffset, &nHead, kNextLinkSize);
    if (nRet != 0) return nRet;
    nHead = n;
    ++*pnReturned;
  }
  if (nHead != h.nIdleHeadNo) {
    nRet = WriteFull(nFd, kHdrIdleHeadOffset, &nHead, 4);
  }
  return nRet;
}

int32 SyncDirOf(const std::string& strPath) {
  size_t nSlash = strPath.rfind('/');
  std::string strDir = nSlash == std::string::npos ? "." : strPath.substr(0, nSlash + 1);
  int nFd = open(strDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (nFd < 0) return errno;
  int32 nRet = fsync(nFd) == 0 ? 0 : errno;
  close(nFd);
  return nRet;
}

void PrintFindings(const std::vector<CacheCheckFinding>& v, FILE* pOut) {
  for (const CacheCheckFinding& f : v) {
    fprintf(pOut, "%-9s %s\n",
            f.nKind == CACHE_CHECK_DAMAGE ? "DAMAGE"
            : f.nKind == CACHE_CHECK_LEAK ? "leak"
                                          : "duplicate",
            f.strText.c_str());
  }
}

}  // namespace

int cache_repair(const char* szPath, int32 nSizeMb, const char* szName, FILE* pOut, FILE* pErr) {
  const std::string strPath = szPath;
  const std::string strRepair = strPath + ".repair";
  const std::string strBak = strPath + ".bak";

  // 1. Nobody else may use the file. Our own flock keeps a second repair out;
  //    the /proc scan and the service's guard keep the service out.
  CFd fdFile(open(szPath, O_RDONLY | O_CLOEXEC));
  if (fdFile.Get() < 0) {
    fprintf(pErr, "zdcache: cannot open %s: %s\n", szPath, strerror(errno));
    return ZDCACHE_EXIT_IO;
  }
  if (flock(fdFile.Get(), LOCK_EX | LOCK_NB) != 0) {
    fprintf(pErr, "zdcache: %s is locked by another zdcache; not repaired\n", szPath);
    return ZDCACHE_EXIT_BUSY;
  }
  CFd fdGuard;
  if (szName != nullptr) {
    std::string strGuard = std::string("/dev/shm/") + szName + "_sema.lock";
    for (size_t i = strlen("/dev/shm/"); i < strGuard.size(); ++i) {
      if (strGuard[i] == '/') strGuard[i] = '_';  // as the guard maps its name
    }
    fdGuard.Reset(open(strGuard.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (fdGuard.Get() < 0) {
      fprintf(pErr, "zdcache: cannot open the service guard %s: %s\n", strGuard.c_str(),
              strerror(errno));
      return ZDCACHE_EXIT_IO;
    }
    if (flock(fdGuard.Get(), LOCK_EX | LOCK_NB) != 0) {
      fprintf(pErr, "zdcache: the service '%s' is running (%s is taken); stop it first\n", szName,
              strGuard.c_str());
      return ZDCACHE_EXIT_BUSY;
    }
  }
  struct stat stFile;
  if (fstat(fdFile.Get(), &stFile) != 0) return ZDCACHE_EXIT_IO;
  int nHolder = FindHolder(stFile);
  if (nHolder != 0) {
    fprintf(pErr, "zdcache: process %d has %s open (the service?); stop it first\n", nHolder,
            szPath);
    return ZDCACHE_EXIT_BUSY;
  }

  std::vector<CacheCheckFinding> findings;
  int32 nRet = cache_file_check(szPath, nSizeMb, &findings, nullptr);
  if (nRet != 0) {
    fprintf(pErr, "zdcache: cannot read %s: %s\n", szPath, strerror(nRet));
    return ZDCACHE_EXIT_IO;
  }
  PrintFindings(findings, pOut);
  if (cache_check_count(findings, CACHE_CHECK_DAMAGE) > 0) {
    fprintf(pOut,
            "the file is damaged: damage is not repaired. Keep a copy, then remove the file "
            "(its queued data is lost) or export what is readable first\n");
    return ZDCACHE_EXIT_DAMAGE;
  }
  if (findings.empty()) {
    fprintf(pOut, "clean: nothing to repair\n");
    return ZDCACHE_EXIT_OK;
  }
  // 2. An earlier backup is the operator's to remove.
  if (access(strBak.c_str(), F_OK) == 0) {
    fprintf(pErr, "zdcache: %s exists; move it away first\n", strBak.c_str());
    return ZDCACHE_EXIT_BUSY;
  }

  // 3. Repair a copy.
  CFd fdCopy;
  nRet = CopyFile(fdFile.Get(), strRepair.c_str(), &fdCopy);
  int32 nDropped = 0;
  int32 nReturned = 0;
  CCacheReader copyReader;
  CacheHeaderView h{};
  if (nRet == 0) nRet = copyReader.Open(strRepair.c_str());
  if (nRet == 0) nRet = copyReader.LoadHeader(&h);
  if (nRet == 0) nRet = DropDuplicates(fdCopy.Get(), &copyReader, h, &nDropped);
  if (nRet == 0) nRet = ReturnLeaks(fdCopy.Get(), &copyReader, h, &nReturned);
  if (nRet == 0 && fsync(fdCopy.Get()) != 0) nRet = errno;
  std::vector<CacheCheckFinding> after;
  if (nRet == 0) nRet = cache_file_check(strRepair.c_str(), nSizeMb, &after, nullptr);
  if (nRet != 0 || !after.empty()) {
    if (nRet != 0) {
      fprintf(pErr, "zdcache: repairing the copy %s failed: %s\n", strRepair.c_str(),
              strerror(nRet));
    } else {
      fprintf(pErr, "zdcache: the repaired copy still has findings; the original is unchanged:\n");
      PrintFindings(after, pErr);
    }
    unlink(strRepair.c_str());
    return nRet != 0 ? ZDCACHE_EXIT_IO : ZDCACHE_EXIT_DAMAGE;
  }

  // 4. Keep the original as FILE.bak, then put the copy in its place; FILE
  //    names a complete cache file at every moment.
  if (link(szPath, strBak.c_str()) != 0) {
    fprintf(pErr, "zdcache: cannot keep %s as %s: %s\n", szPath, strBak.c_str(), strerror(errno));
    unlink(strRepair.c_str());
    return ZDCACHE_EXIT_IO;
  }
  if (rename(strRepair.c_str(), szPath) != 0) {
    fprintf(pErr, "zdcache: cannot replace %s: %s\n", szPath, strerror(errno));
    unlink(strRepair.c_str());
    unlink(strBak.c_str());
    return ZDCACHE_EXIT_IO;
  }
  SyncDirOf(strPath);
  fprintf(pOut,
          "repaired: %d leaked blocks returned to the idle list, %d duplicate entries "
          "dropped; the original is %s\n",
          nReturned, nDropped, strBak.c_str());
  return ZDCACHE_EXIT_OK;
}
