#include "CacheFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <vector>

#include "CacheFileFormat.h"
#include "zd_errcode.h"

using namespace cachefile;

namespace {

constexpr const char* kLogCategory = "Zandor.Buffer";

// Attempts (1 ms apart) to take a busy victim's mutex before the preemption
// passes to the next fullest entry. A victim busy for longer is most likely
// held by a thread that waits for the allocation lock this thread holds (two
// savers on two entries): waiting on would deadlock.
constexpr int32 kVictimLockTries = 20;
constexpr int32 kVictimLockWaitMs = 1;

// The entry whose SaveRecord runs on this thread. A preemption started by
// that save and picking that same entry must not take the block being
// written or drop the record being saved.
thread_local const SrvInfo* t_pSavingSrv = nullptr;

// What the last successful ReadCurRecord on this thread found: where the
// record ends and which blocks lie before its end, so that the removal that
// follows needs no read. Valid only for the exact entry state it was taken in.
struct ReadCursor {
  bool bValid = false;
  uint64 nEpoch = 0;
  const SrvInfo* pSrv = nullptr;
  int32 nHeadNo = 0, nReadOffset = 0, nTailNo = 0, nWriteOffset = 0, nBlockNumUsed = 0;
  int32 nEndBlock = 0, nEndPos = 0;
  std::vector<int32> vecLeft;
};
thread_local ReadCursor t_cursor;
// Per-thread staging buffer: whole small blocks are read into it, and the
// pieces of one block a save writes are joined in it (at most kStageMax
// bytes, so a copy never costs more than the write it saves).
constexpr int32 kStageMax = kBlockSizeSmall;
thread_local std::vector<char> t_stage;
// Blocks taken by the save in progress on this thread.
thread_local std::vector<int32> t_taken;
// Full small blocks of that save, and the buffer their runs are built in.
constexpr int32 kRunBlocks = 64;
thread_local std::vector<char> t_run;
struct PendingBlockTl {
  int32 nBlockNo;
  int32 nNext;
  int64 nStreamOffset;
};
thread_local std::vector<PendingBlockTl> t_pending;
// The page moved on its own at the start of a server-info block read or
// written whole (see ReadSrvInfoBlock).
constexpr int32 kSibFirstPage = 4096;
// Tells apart the openings of cache files, so a cursor never outlives one.
std::atomic<uint64> g_nEpoch{0};

class CLock {
 public:
  explicit CLock(MutexHandle hMutex) : m_hMutex(hMutex) { pthread_mutex_lock(m_hMutex); }
  ~CLock() { pthread_mutex_unlock(m_hMutex); }
  CLock(const CLock&) = delete;
  CLock& operator=(const CLock&) = delete;

 private:
  MutexHandle m_hMutex;
};

// Block buffers are large (up to 4 MiB): allocated for the operation that
// needs one and freed at its end.
struct CBlockBuf {
  explicit CBlockBuf(int32 nSize) : p(static_cast<char*>(malloc(static_cast<size_t>(nSize)))) {}
  ~CBlockBuf() { free(p); }
  CBlockBuf(const CBlockBuf&) = delete;
  CBlockBuf& operator=(const CBlockBuf&) = delete;
  char* p;
};

int32 GetInt32(const char* p) {
  int32 n;
  memcpy(&n, p, sizeof(n));
  return n;
}
void PutInt32(char* p, int32 n) { memcpy(p, &n, sizeof(n)); }

// Fields read without the lock that guards their writers (the block count
// and the server-info tail by range checks, nBlockNumUsed by the victim
// choice, an entry's head and tail by HasRecord) are loaded and stored as
// relaxed atomics: those readers want a recent value, not a consistent one.
int32 LoadRelaxed(const int32& n) {
  return std::atomic_ref<int32>(const_cast<int32&>(n)).load(std::memory_order_relaxed);
}
void StoreRelaxed(int32& n, int32 nValue) {
  std::atomic_ref<int32>(n).store(nValue, std::memory_order_relaxed);
}

int32 LoadCount(const SrvInfo* pSrv) {
  return std::atomic_ref<int32>(const_cast<int32&>(pSrv->nBlockNumUsed))
      .load(std::memory_order_relaxed);
}
void StoreCount(SrvInfo* pSrv, int32 n) {
  std::atomic_ref<int32>(pSrv->nBlockNumUsed).store(n, std::memory_order_relaxed);
}

void SetEmpty(SrvInfo* pSrv) {
  StoreCount(pSrv, 0);
  StoreRelaxed(pSrv->nHeadNo, kNoBlock);
  StoreRelaxed(pSrv->nTailNo, kNoBlock);
  pSrv->nReadOffset = 0;
  pSrv->nWriteOffset = 0;
}

// The persisted chain fields, for restoring an entry after a failed commit.
void CopyChainFields(SrvInfo* pTo, const SrvInfo& from) {
  StoreCount(pTo, from.nBlockNumUsed);
  StoreRelaxed(pTo->nHeadNo, from.nHeadNo);
  StoreRelaxed(pTo->nTailNo, from.nTailNo);
  pTo->nReadOffset = from.nReadOffset;
  pTo->nWriteOffset = from.nWriteOffset;
}

void EntryToBytes(const SrvInfo* pSrv, char* pEntry) {
  memset(pEntry, 0, kEntrySize);
  pEntry[kEntIsIpv4Offset] = static_cast<char>(pSrv->nIsIPV4);
  memcpy(pEntry + kEntAddrOffset, &pSrv->nIP, sizeof(pSrv->nIP));
  memcpy(pEntry + kEntPortOffset, &pSrv->nPort, sizeof(pSrv->nPort));
  PutInt32(pEntry + kEntBlockNumUsedOffset, pSrv->nBlockNumUsed);
  PutInt32(pEntry + kEntHeadNoOffset, pSrv->nHeadNo);
  PutInt32(pEntry + kEntTailNoOffset, pSrv->nTailNo);
  PutInt32(pEntry + kEntReadOffsetOffset, pSrv->nReadOffset);
  PutInt32(pEntry + kEntWriteOffsetOffset, pSrv->nWriteOffset);
  memcpy(pEntry + kEntUserOffset, pSrv->szUser, strnlen(pSrv->szUser, kEntUserSize - 1));
  memcpy(pEntry + kEntPasswordOffset, pSrv->szPassWord,
         strnlen(pSrv->szPassWord, kEntPasswordSize - 1));
}

// Copies at most nMax characters and zero-fills the rest of the field.
void CopyField(char* pDst, int32 nFieldSize, const char* szSrc) {
  memset(pDst, 0, static_cast<size_t>(nFieldSize));
  if (szSrc != nullptr) memcpy(pDst, szSrc, strnlen(szSrc, static_cast<size_t>(nFieldSize - 1)));
}

}  // namespace

void DecodeSrvEntry(const char* pEntry, SrvInfo* pSrv) {
  pSrv->nIsIPV4 = static_cast<uint8>(pEntry[kEntIsIpv4Offset]);
  memcpy(&pSrv->nIP, pEntry + kEntAddrOffset, sizeof(pSrv->nIP));
  memcpy(&pSrv->nPort, pEntry + kEntPortOffset, sizeof(pSrv->nPort));
  pSrv->nBlockNumUsed = GetInt32(pEntry + kEntBlockNumUsedOffset);
  pSrv->nHeadNo = GetInt32(pEntry + kEntHeadNoOffset);
  pSrv->nTailNo = GetInt32(pEntry + kEntTailNoOffset);
  pSrv->nReadOffset = GetInt32(pEntry + kEntReadOffsetOffset);
  pSrv->nWriteOffset = GetInt32(pEntry + kEntWriteOffsetOffset);
  memcpy(pSrv->szUser, pEntry + kEntUserOffset, kEntUserSize);
  pSrv->szUser[kEntUserSize - 1] = '\0';
  memcpy(pSrv->szPassWord, pEntry + kEntPasswordOffset, kEntPasswordSize);
  pSrv->szPassWord[kEntPasswordSize - 1] = '\0';
}

CCacheFile::CCacheFile()
    : m_hFile(-1),
      m_nMaxFileSize(0),
      m_fileBlockInfo(),
      m_cat(nullptr),
      m_nMaxBlocks(0),
      m_nEpoch(0) {}

CCacheFile::~CCacheFile() = default;

// ---- File access -------------------------------------------------------------

int32 CCacheFile::ReadAt(int64 nOffset, void* pBuf, int32 nLen) {
  CLock lock(m_fileBlockInfo.mutexDisk);
  int32 nDone = 0;
  return os_file_seek_read(m_hFile, nOffset, pBuf, nLen, &nDone);
}

int32 CCacheFile::WriteAt(int64 nOffset, const void* pBuf, int32 nLen) {
  CLock lock(m_fileBlockInfo.mutexDisk);
  int32 nDone = 0;
  return os_file_seek_write(m_hFile, nOffset, pBuf, nLen, &nDone);
}

// Server-info blocks are read and written whole, but between those rare
// moments their entries take one small write (231 bytes) per record saved
// or removed. The page cache keeps what one large read or write brought in
// as folios of up to 2 MiB, and the kernel walks every 4 KiB buffer of a
// folio on each write into it: a 231-byte write into a block that went out
// as one 4 MiB write was measured at 4.5 us instead of 0.25 us, a quarter of
// the cost of saving a 64 KiB record. Moving the first page on its own keeps
// the header and the first 17 entries in a small folio; the pages behind it
// follow in folios that grow with their distance from the block start.
// mutexDisk is held across both pieces, so that no entry write falls between
// them and is read half-old or overwritten by the stale second piece.
int32 CCacheFile::ReadSrvInfoBlock(int32 nBlockNo, char* pBlock) {
  const int32 nBlockSize = m_fileBlockInfo.nBlockSize;
  const int64 nOffset = BlockOffset(nBlockNo, nBlockSize);
  const int32 nFirst = std::min(kSibFirstPage, nBlockSize);
  CLock lock(m_fileBlockInfo.mutexDisk);
  int32 nRet = ReadAt(nOffset, pBlock, nFirst);
  if (nRet != 0 || nFirst == nBlockSize) return nRet;
  return ReadAt(nOffset + nFirst, pBlock + nFirst, nBlockSize - nFirst);
}

int32 CCacheFile::WriteSrvInfoBlock(int32 nBlockNo, const char* pBlock) {
  const int32 nBlockSize = m_fileBlockInfo.nBlockSize;
  const int64 nOffset = BlockOffset(nBlockNo, nBlockSize);
  const int32 nFirst = std::min(kSibFirstPage, nBlockSize);
  CLock lock(m_fileBlockInfo.mutexDisk);
  int32 nRet = WriteAt(nOffset, pBlock, nFirst);
  if (nRet != 0 || nFirst == nBlockSize) return nRet;
  return WriteAt(nOffset + nFirst, pBlock + nFirst, nBlockSize - nFirst);
}

bool CCacheFile::IsDataBlockNo(int32 nBlockNo) const {
  // Block 0 is always a server-info block; a link to it is damage.
  return nBlockNo >= 1 && nBlockNo < LoadRelaxed(m_fileBlockInfo.nTotalBlockNum);
}

bool CCacheFile::IsQueueInRange(const SrvInfo& srv) const {
  const int32 nBlockSize = m_fileBlockInfo.nBlockSize;
  auto isPos = [nBlockSize](int32 nPos) { return nPos >= kDataAreaOffset && nPos <= nBlockSize; };
  if (!IsDataBlockNo(srv.nHeadNo) || !IsDataBlockNo(srv.nTailNo)) return false;
  if (!isPos(srv.nReadOffset) || !isPos(srv.nWriteOffset)) return false;
  if (srv.nBlockNumUsed < 1 || srv.nBlockNumUsed > LoadRelaxed(m_fileBlockInfo.nTotalBlockNum))
    return false;
  // Head and tail in one block: the read position cannot lie beyond the
  // write position.
  if (srv.nHeadNo == srv.nTailNo && srv.nReadOffset > srv.nWriteOffset) return false;
  return true;
}

// ---- Open, create, close -------------------------------------------------------

int32 CCacheFile::Init(const char* szVersion, const char* szFileName, int32 nMaxFileSize,
                       std::list<SrvInfo*>* pListSrvInfo) {
  if (szVersion == nullptr || strlen(szVersion) > 64 || szFileName == nullptr ||
      szFileName[0] == '\0' || nMaxFileSize < 1 || pListSrvInfo == nullptr) {
    return EC_CACHE_INVALID_ARG;
  }
  FileBaseInfo& fb = m_fileBlockInfo;
  m_cat = logc_get_category(kLogCategory);
  m_nMaxFileSize = nMaxFileSize;
  m_nEpoch = ++g_nEpoch;
  memset(fb.szVersion, 0, sizeof(fb.szVersion));
  memcpy(fb.szVersion, szVersion, strnlen(szVersion, kVersionMaxChars));

  fb.mutexSrv = nullptr;
  fb.mutexAlockBlock = nullptr;
  fb.mutexDisk = nullptr;
  int32 nRet = os_mutex_init(&fb.mutexSrv);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "init mutex server failed");
    Release();
    return nRet;
  }
  nRet = os_mutex_init(&fb.mutexAlockBlock);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "init mutex alock block failed");
    Release();
    return nRet;
  }
  nRet = os_mutex_init(&fb.mutexDisk);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "init mutex disk block failed");
    Release();
    return nRet;
  }

  if (os_file_access(szFileName, 0) != 0) {
    // New file: block 0 (an empty server-info block) first, then the header.
    // A stop in between leaves a zero header, which the next start refuses
    // ("invalid block size") rather than misreads.
    nRet = os_file_open(szFileName, O_RDWR | O_CREAT, &m_hFile);
    if (nRet != 0) {
      m_hFile = -1;
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "create cache file failed");
      Release();
      return nRet;
    }
    fb.nBlockSize = nMaxFileSize >= kLargeBlockMinMb ? kBlockSizeLarge : kBlockSizeSmall;
    char* pBlock = static_cast<char*>(calloc(1, static_cast<size_t>(fb.nBlockSize)));
    if (pBlock == nullptr) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for write buffer failed");
      Release();
      return EC_NO_MEMORY;
    }
    PutInt32(pBlock + kSibNextOffset, kNoBlock);
    PutInt32(pBlock + kSibPrevOffset, kNoBlock);
    PutInt32(pBlock + kSibCountOffset, 0);
    nRet = WriteSrvInfoBlock(0, pBlock);
    free(pBlock);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "write first srv info block failed");
      Release();
      return nRet;
    }
    fb.nIdleHeadNo = kNoBlock;
    fb.nTotalBlockNum = 1;
    fb.nSrvInfoHeadNo = 0;
    fb.nSrvInfoTailNo = 0;
    m_nMaxBlocks = MaxBlockCount(m_nMaxFileSize, fb.nBlockSize);
    nRet = SaveFileBaseInfoToDisk();
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "save file base info to disk failed");
      Release();
      return nRet;
    }
  } else {
    nRet = os_file_open(szFileName, O_RDWR, &m_hFile);
    if (nRet != 0) {
      m_hFile = -1;
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "open cache file failed");
      Release();
      return nRet;
    }
    int64 nSize = 0;
    nRet = os_file_get_size(m_hFile, &nSize);
    if (nRet != 0) {
      // The header checks below still guard the open; only the size check
      // is lost.
      LOGC_WRITE(m_cat, LL_WARN, nRet, "get cache file size failed");
    } else if (nSize / kBytesPerMb > m_nMaxFileSize) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_TOO_LARGE, "cache file size too small");
      Release();
      return EC_CACHE_TOO_LARGE;
    }
    nRet = LoadFileBaseInfo();
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "load file base info from disk failed");
      Release();
      return nRet;
    }
    m_nMaxBlocks = MaxBlockCount(m_nMaxFileSize, fb.nBlockSize);
    nRet = LoadSrvsInfo();
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "load srvs info from disk failed");
      Release();
      return nRet;
    }
  }
  pListSrvInfo->assign(m_listSrvInfo.begin(), m_listSrvInfo.end());
  return 0;
}

int32 CCacheFile::LoadFileBaseInfo() {
  char hdr[kHeaderSize];
  int32 nRet = ReadAt(0, hdr, kHeaderSize);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "read file base info from disk failed");
    return nRet;
  }
  FileBaseInfo& fb = m_fileBlockInfo;
  fb.nBlockSize = GetInt32(hdr + kHdrBlockSizeOffset);
  fb.nTotalBlockNum = GetInt32(hdr + kHdrTotalBlockNumOffset);
  fb.nIdleHeadNo = GetInt32(hdr + kHdrIdleHeadOffset);
  fb.nSrvInfoHeadNo = GetInt32(hdr + kHdrSrvInfoHeadOffset);
  fb.nSrvInfoTailNo = GetInt32(hdr + kHdrSrvInfoTailOffset);

  const char* szFailed = nullptr;
  if (fb.nBlockSize != kBlockSizeLarge && fb.nBlockSize != kBlockSizeSmall) {
    szFailed = "invalid block size";
  } else {
    // Leaves the header out of account, so it may exceed the allocation
    // limit by one block.
    int64 nMaxBlockNo = static_cast<int64>(m_nMaxFileSize) * kBytesPerMb / fb.nBlockSize;
    if (fb.nTotalBlockNum < 0 || fb.nTotalBlockNum > nMaxBlockNo) {
      szFailed = "invalid total block number";
    } else if (fb.nIdleHeadNo < kNoBlock) {
      szFailed = "invalid idle head number";
    } else if (fb.nSrvInfoHeadNo != 0) {
      szFailed = "invalid server info head number";
    } else if (fb.nSrvInfoTailNo < 0 || fb.nSrvInfoTailNo > nMaxBlockNo - 1) {
      szFailed = "invalid server info tail number";
    }
  }
  if (szFailed != nullptr) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_HEADER, "%s", szFailed);
    return EC_CACHE_BAD_HEADER;
  }
  return 0;
}

int32 CCacheFile::SaveFileBaseInfoToDisk() {
  FileBaseInfo& fb = m_fileBlockInfo;
  char hdr[kHeaderSize];
  // Every header field changes under mutexAlockBlock, so the image taken
  // under it is the latest; the header written last carries the latest
  // values.
  CLock lockAlloc(fb.mutexAlockBlock);
  CLock lockDisk(fb.mutexDisk);
  memset(hdr, 0, sizeof(hdr));
  PutInt32(hdr + kHdrBlockSizeOffset, fb.nBlockSize);
  PutInt32(hdr + kHdrTotalBlockNumOffset, fb.nTotalBlockNum);
  PutInt32(hdr + kHdrIdleHeadOffset, fb.nIdleHeadNo);
  PutInt32(hdr + kHdrSrvInfoHeadOffset, fb.nSrvInfoHeadNo);
  PutInt32(hdr + kHdrSrvInfoTailOffset, fb.nSrvInfoTailNo);
  uint16 nVersionLen = static_cast<uint16>(strnlen(fb.szVersion, kVersionMaxChars) + 1);
  memcpy(hdr + kHdrVersionLenOffset, &nVersionLen, sizeof(nVersionLen));
  memcpy(hdr + kHdrVersionOffset, fb.szVersion, nVersionLen - 1u);
  int32 nDone = 0;
  return os_file_seek_write(m_hFile, 0, hdr, kHeaderSize, &nDone);
}

int32 CCacheFile::Release() {
  for (SrvInfo* pSrv : m_listSrvInfo) {
    if (pSrv->mutexSrv != nullptr) os_mutex_destroy(pSrv->mutexSrv);
    delete pSrv;
  }
  m_listSrvInfo.clear();
  if (m_hFile != -1) {
    os_file_close(m_hFile);
    m_hFile = -1;
  }
  FileBaseInfo& fb = m_fileBlockInfo;
  if (fb.mutexSrv != nullptr) os_mutex_destroy(fb.mutexSrv);
  if (fb.mutexAlockBlock != nullptr) os_mutex_destroy(fb.mutexAlockBlock);
  if (fb.mutexDisk != nullptr) os_mutex_destroy(fb.mutexDisk);
  fb.mutexSrv = nullptr;
  fb.mutexAlockBlock = nullptr;
  fb.mutexDisk = nullptr;
  return 0;
}

// ---- Server entries --------------------------------------------------------------

bool CCacheFile::HasRecord(SrvHandle hSrv) {
  return LoadRelaxed(hSrv->nHeadNo) != kNoBlock && LoadRelaxed(hSrv->nTailNo) != kNoBlock;
}

int32 CCacheFile::SaveSrvInfoToDisk(SrvInfo* pSrvInfo) {
  char entry[kEntrySize];
  EntryToBytes(pSrvInfo, entry);
  int32 nRet =
      WriteAt(EntryOffset(pSrvInfo->nBlockNo, pSrvInfo->nOrderInBlock, m_fileBlockInfo.nBlockSize),
              entry, kEntrySize);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "save srv info to disk failed");
    return EC_NO_MEMORY;
  }
  return 0;
}

int32 CCacheFile::SaveSrvInfo(uint32 nIP, uint16 nPort, SrvHandle* pHSrvInfo) {
  if (pHSrvInfo == nullptr) return EC_CACHE_INVALID_ARG;
  FileBaseInfo& fb = m_fileBlockInfo;
  CLock lock(fb.mutexSrv);
  if (!m_listSrvInfo.empty()) {
    *pHSrvInfo = m_listSrvInfo.front();
    return 0;
  }
  SrvInfo* pSrv = new (std::nothrow) SrvInfo();
  if (pSrv == nullptr) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for server info failed");
    return EC_NO_MEMORY;
  }
  auto fail = [&](int32 nCode) {
    if (pSrv->mutexSrv != nullptr) os_mutex_destroy(pSrv->mutexSrv);
    delete pSrv;
    return nCode;
  };
  int32 nTail;
  {
    CLock lockAlloc(fb.mutexAlockBlock);
    nTail = fb.nSrvInfoTailNo;
  }
  char countBytes[4];
  int32 nRet = ReadAt(BlockOffset(nTail, fb.nBlockSize) + kSibCountOffset, countBytes, 4);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "read srv count from disk failed");
    return fail(nRet);
  }
  int32 nCount = GetInt32(countBytes);
  if (nCount < 0 || nCount > MaxEntriesPerBlock(fb.nBlockSize)) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_SRV_COUNT, "invalid server count");
    return fail(EC_CACHE_BAD_SRV_COUNT);
  }
  // Fills the new entry for its slot, creates its mutex and writes it;
  // 0 or the logged failure's status.
  auto createNew = [&](int32 nBlockNo, int32 nOrder) -> int32 {
    pSrv->nIP = nIP;
    pSrv->nPort = nPort;
    pSrv->nBlockNo = nBlockNo;
    pSrv->nOrderInBlock = nOrder;
    SetEmpty(pSrv);
    pSrv->nIsIPV4 = 1;
    int32 nStatus = os_mutex_init(&pSrv->mutexSrv);
    if (nStatus != 0) {
      pSrv->mutexSrv = nullptr;
      LOGC_WRITE(m_cat, LL_ERROR, nStatus, "init mutex server failed");
      return nStatus;
    }
    nStatus = SaveSrvInfoToDisk(pSrv);
    if (nStatus != 0) LOGC_WRITE(m_cat, LL_ERROR, nStatus, "save srv info to disk failed");
    return nStatus;
  };
  if (kSibHeaderSize + static_cast<int64>(nCount + 1) * kEntrySize <= fb.nBlockSize) {
    // Free slot in the tail block: the entry first, then the count, so an
    // interrupted creation leaves an entry beyond the count, which is ignored.
    nRet = createNew(nTail, nCount + 1);
    if (nRet != 0) return fail(nRet);
    PutInt32(countBytes, nCount + 1);
    nRet = WriteAt(BlockOffset(nTail, fb.nBlockSize) + kSibCountOffset, countBytes, 4);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "write srv count to disk failed");
      return fail(nRet);
    }
  } else {
    // Tail block full: a new server-info block. Order: the allocation, the
    // old tail's next link, the new block, the entry, and last the header
    // naming the new tail. Until the header is written the new block lies
    // behind the tail, outside the chain.
    int32 nNewBlock = kNoBlock;
    nRet = AllocIdleBlock(&nNewBlock);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "AllocIdleBlock failed");
      return fail(nRet);
    }
    char linkBytes[4];
    PutInt32(linkBytes, nNewBlock);
    nRet = WriteAt(BlockOffset(nTail, fb.nBlockSize) + kSibNextOffset, linkBytes, 4);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "update next block no failed");
      return fail(nRet);
    }
    CBlockBuf block(fb.nBlockSize);
    if (block.p == nullptr) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for write buffer failed");
      return fail(EC_NO_MEMORY);
    }
    memset(block.p, 0, static_cast<size_t>(fb.nBlockSize));
    PutInt32(block.p + kSibNextOffset, kNoBlock);
    PutInt32(block.p + kSibPrevOffset, nTail);
    PutInt32(block.p + kSibCountOffset, 1);
    nRet = WriteSrvInfoBlock(nNewBlock, block.p);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "write new srv info block head failed");
      return fail(nRet);
    }
    nRet = createNew(nNewBlock, 1);
    if (nRet != 0) return fail(nRet);
    {
      CLock lockAlloc(fb.mutexAlockBlock);
      StoreRelaxed(fb.nSrvInfoTailNo, nNewBlock);
      nRet = SaveFileBaseInfoToDisk();
    }
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "save file base info to disk failed");
      return fail(nRet);
    }
  }
  {
    // The victim choice walks the list under mutexAlockBlock.
    CLock lockAlloc(fb.mutexAlockBlock);
    m_listSrvInfo.push_back(pSrv);
  }
  *pHSrvInfo = pSrv;
  return 0;
}

// Follows the server-info chain from block 0 to the tail by its next links
// before anything is changed, so that a damaged chain fails the start-up pass
// while the file is still untouched.
int32 CCacheFile::WalkSrvInfoChain(std::vector<int32>* pChain) {
  const FileBaseInfo& fb = m_fileBlockInfo;
  std::vector<bool> visited(static_cast<size_t>(fb.nTotalBlockNum > 0 ? fb.nTotalBlockNum : 0));
  int32 nBlock = fb.nSrvInfoHeadNo;
  while (true) {
    if (nBlock < 0 || nBlock >= fb.nTotalBlockNum || visited[static_cast<size_t>(nBlock)]) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_HEADER,
                 "invalid server info chain: block %d after %zu blocks, tail %d, total %d", nBlock,
                 pChain->size(), fb.nSrvInfoTailNo, fb.nTotalBlockNum);
      return EC_CACHE_BAD_HEADER;
    }
    visited[static_cast<size_t>(nBlock)] = true;
    pChain->push_back(nBlock);
    if (nBlock == fb.nSrvInfoTailNo) return 0;
    char linkBytes[4];
    int32 nRet = ReadAt(BlockOffset(nBlock, fb.nBlockSize) + kSibNextOffset, linkBytes, 4);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "read cur srv info block from disk failed");
      return nRet;
    }
    nBlock = GetInt32(linkBytes);
  }
}

// Start-up pass: loads the entries that hold records, drops empty ones and
// compacts the server-info chain by moving the last entries of the tail
// block into the holes.
//
// Crash safety. A move between blocks writes the entry into its new slot
// first and only then lowers the tail block's count, so a stop in between
// leaves the entry twice (identical copies), never lost; the next pass keeps
// the first copy and drops the second (same head block). A tail block that
// empties leaves the chain by a header write naming its predecessor as the
// tail before it is pushed on the idle list, so no block is ever both in the
// chain and idle. Every block written back whole at the end of its turn
// differs from the file only in its first 12 bytes (next link and count).
int32 CCacheFile::LoadSrvsInfo() {
  FileBaseInfo& fb = m_fileBlockInfo;
  if (fb.nSrvInfoHeadNo != 0 || fb.nSrvInfoTailNo < 0) return EC_CACHE_BAD_HEADER;
  const int32 nBlockSize = fb.nBlockSize;
  const int32 nMaxCount = MaxEntriesPerBlock(nBlockSize);

  std::vector<int32> chain;
  int32 nRet = WalkSrvInfoChain(&chain);
  if (nRet != 0) return nRet;
  size_t nCurIdx = 0;
  size_t nTailIdx = chain.size() - 1;

  CBlockBuf cur(nBlockSize);
  if (cur.p == nullptr) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for cur block buffer failed");
    return EC_NO_MEMORY;
  }
  CBlockBuf tail(nCurIdx != nTailIdx ? nBlockSize : 0);
  int32 nTailCount = 0;
  auto loadTail = [&]() -> int32 {
    int32 nR = ReadSrvInfoBlock(chain[nTailIdx], tail.p);
    if (nR != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nR, "read tail srv info block from disk failed");
      return nR;
    }
    nTailCount = GetInt32(tail.p + kSibCountOffset);
    if (nTailCount < 0 || nTailCount > nMaxCount) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_SRV_COUNT, "invalid server count");
      return EC_CACHE_BAD_SRV_COUNT;
    }
    return 0;
  };
  if (nCurIdx != nTailIdx) {
    if (tail.p == nullptr) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for tail block buffer failed");
      return EC_NO_MEMORY;
    }
    nRet = loadTail();
    if (nRet != 0) return nRet;
  }

  std::vector<int32> loadedHeads;
  while (true) {
    const int32 nCurBlock = chain[nCurIdx];
    nRet = ReadSrvInfoBlock(nCurBlock, cur.p);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "read cur srv info block from disk failed");
      return nRet;
    }
    int32 nCount = GetInt32(cur.p + kSibCountOffset);
    if (nCount < 0 || nCount > nMaxCount) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_SRV_COUNT, "invalid server count");
      return EC_CACHE_BAD_SRV_COUNT;
    }
    int32 i = 0;
    while (i < nCount) {
      char* pEntry = cur.p + kSibHeaderSize + static_cast<int64>(i) * kEntrySize;
      SrvInfo* pSrv = new (std::nothrow) SrvInfo();
      if (pSrv == nullptr) {
        LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for srv info failed");
        return EC_NO_MEMORY;
      }
      DecodeSrvEntry(pEntry, pSrv);
      bool bDrop = pSrv->nHeadNo == kNoBlock || pSrv->nTailNo == kNoBlock;
      if (!bDrop && !IsQueueInRange(*pSrv)) {
        // Every record operation indexes a block buffer with the stored
        // positions: an entry whose queue cannot be walked is dropped here
        // like an empty one, its blocks left as leaks for the checker.
        LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_CHAIN,
                   "damaged srv info dropped: head %d tail %d read offset %d write offset %d "
                   "blocks %d",
                   pSrv->nHeadNo, pSrv->nTailNo, pSrv->nReadOffset, pSrv->nWriteOffset,
                   pSrv->nBlockNumUsed);
        bDrop = true;
      }
      if (!bDrop) {
        for (int32 nHead : loadedHeads) {
          if (nHead == pSrv->nHeadNo) {
            // The second copy left by a move that stopped before the source
            // block's count was lowered.
            LOGC_WRITE(m_cat, LL_WARN, 0, "duplicate srv info of head block %d dropped",
                       pSrv->nHeadNo);
            bDrop = true;
            break;
          }
        }
      }
      if (!bDrop) {
        pSrv->nBlockNo = nCurBlock;
        pSrv->nOrderInBlock = i + 1;
        nRet = os_mutex_init(&pSrv->mutexSrv);
        if (nRet != 0) {
          delete pSrv;
          return nRet;
        }
        m_listSrvInfo.push_back(pSrv);
        loadedHeads.push_back(pSrv->nHeadNo);
        ++i;
        continue;
      }
      delete pSrv;
      if (nCurIdx == nTailIdx) {
        // Move inside the block: the copy is written at once, the lower
        // count with the block at the end, so the final block write changes
        // only its first 12 bytes and a torn one loses nothing.
        if (i != nCount - 1) {
          memcpy(pEntry, cur.p + kSibHeaderSize + static_cast<int64>(nCount - 1) * kEntrySize,
                 kEntrySize);
          nRet = WriteAt(EntryOffset(nCurBlock, i + 1, nBlockSize), pEntry, kEntrySize);
          if (nRet != 0) {
            LOGC_WRITE(m_cat, LL_ERROR, nRet, "save srv info to disk failed");
            return nRet;
          }
        }
        --nCount;
        continue;
      }
      if (nTailCount == 0) {
        // An empty tail block behind the current one: retire it first.
      } else {
        // Move the tail's last entry here: the new copy first, then the count.
        memcpy(pEntry, tail.p + kSibHeaderSize + static_cast<int64>(nTailCount - 1) * kEntrySize,
               kEntrySize);
        nRet = WriteAt(EntryOffset(nCurBlock, i + 1, nBlockSize), pEntry, kEntrySize);
        if (nRet != 0) {
          LOGC_WRITE(m_cat, LL_ERROR, nRet, "save srv info to disk failed");
          return nRet;
        }
        --nTailCount;
        PutInt32(tail.p + kSibCountOffset, nTailCount);
        if (nTailCount > 0) {
          nRet = WriteAt(BlockOffset(chain[nTailIdx], nBlockSize) + kSibCountOffset,
                         tail.p + kSibCountOffset, 4);
          if (nRet != 0) {
            LOGC_WRITE(m_cat, LL_ERROR, nRet, "save srv info to disk failed");
            return nRet;
          }
          continue;
        }
      }
      // The tail block is empty: the header names its predecessor as the
      // tail, then the block goes to the idle list.
      int32 nFreed = chain[nTailIdx];
      --nTailIdx;
      {
        CLock lockAlloc(fb.mutexAlockBlock);
        fb.nSrvInfoTailNo = chain[nTailIdx];
        nRet = SaveFileBaseInfoToDisk();
      }
      if (nRet != 0) {
        LOGC_WRITE(m_cat, LL_ERROR, nRet, "save file base info to disk failed");
        return nRet;
      }
      FreeIdleBlock(nFreed);
      if (nTailIdx != nCurIdx) {
        nRet = loadTail();
        if (nRet != 0) return nRet;
      }
    }
    PutInt32(cur.p + kSibCountOffset, nCount);
    if (nCurIdx == nTailIdx) {
      PutInt32(cur.p + kSibNextOffset, kNoBlock);
      nRet = WriteSrvInfoBlock(nCurBlock, cur.p);
      if (nRet != 0) {
        LOGC_WRITE(m_cat, LL_ERROR, nRet, "save srv info to disk failed");
        return nRet;
      }
      nRet = SaveFileBaseInfoToDisk();
      if (nRet != 0) {
        LOGC_WRITE(m_cat, LL_ERROR, nRet, "save file base info to disk failed");
        return nRet;
      }
      return 0;
    }
    nRet = WriteSrvInfoBlock(nCurBlock, cur.p);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "save srv info to disk failed");
      return nRet;
    }
    ++nCurIdx;
  }
}

int32 CCacheFile::SetUserPassWord(SrvHandle hSrvInfo, const char* szUser, const char* szPassWord) {
  FileBaseInfo& fb = m_fileBlockInfo;
  {
    CLock lockAlloc(fb.mutexAlockBlock);
    if (fb.nSrvInfoHeadNo != 0 || fb.nSrvInfoTailNo < 0) return EC_CACHE_BAD_HEADER;
  }
  if (hSrvInfo == nullptr) return EC_CACHE_INVALID_ARG;
  CLock lock(hSrvInfo->mutexSrv);
  CBlockBuf block(fb.nBlockSize);
  if (block.p == nullptr) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for block buffer failed");
    return EC_NO_MEMORY;
  }
  const int32 nMaxCount = MaxEntriesPerBlock(fb.nBlockSize);
  int32 nBlock = fb.nSrvInfoHeadNo;
  // A chain longer than the file has blocks is a loop.
  for (int64 nSteps = 0; nSteps < m_nMaxBlocks + 1; ++nSteps) {
    // The block is rewritten whole: mutexDisk (recursive, innermost) is held
    // from its read to its write, so no entry write of the same block falls
    // in between and is lost.
    CLock lockDisk(fb.mutexDisk);
    int32 nRet = ReadSrvInfoBlock(nBlock, block.p);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "read cur srv info block from disk failed");
      return nRet;
    }
    int32 nCount = GetInt32(block.p + kSibCountOffset);
    if (nCount < 0 || nCount > nMaxCount) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_SRV_COUNT, "invalid server count");
      return EC_CACHE_BAD_SRV_COUNT;
    }
    for (int32 i = 0; i < nCount; ++i) {
      char* pEntry = block.p + kSibHeaderSize + static_cast<int64>(i) * kEntrySize;
      uint32 nIP;
      uint16 nPort;
      memcpy(&nIP, pEntry + kEntAddrOffset, sizeof(nIP));
      memcpy(&nPort, pEntry + kEntPortOffset, sizeof(nPort));
      if (nIP != hSrvInfo->nIP || nPort != hSrvInfo->nPort) continue;
      CopyField(pEntry + kEntPasswordOffset, kEntPasswordSize, szPassWord);
      CopyField(pEntry + kEntUserOffset, kEntUserSize, szUser);
      nRet = WriteSrvInfoBlock(nBlock, block.p);
      if (nRet != 0) {
        LOGC_WRITE(m_cat, LL_ERROR, nRet, "write cur srv info block from disk failed");
        return nRet;
      }
      CopyField(hSrvInfo->szUser, sizeof(hSrvInfo->szUser), szUser);
      CopyField(hSrvInfo->szPassWord, sizeof(hSrvInfo->szPassWord), szPassWord);
      return 0;
    }
    int32 nNext = GetInt32(block.p + kSibNextOffset);
    if (nBlock == LoadRelaxed(fb.nSrvInfoTailNo) || nNext < 0 ||
        nNext >= LoadRelaxed(fb.nTotalBlockNum)) {
      break;
    }
    nBlock = nNext;
  }
  LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_HEADER,
             "no srv info of this address and port in the server info chain");
  return EC_CACHE_BAD_HEADER;
}

// ---- Blocks ---------------------------------------------------------------------------

int32 CCacheFile::AllocIdleBlock(int32* pBlockNo) {
  int32 nGot = 0;
  return AllocIdleBlocks(1, pBlockNo, &nGot);
}

// Hands out nCount blocks: from the top of the idle list, then by growing
// the file, with one header write for all of them; then, the file being
// full, one preemption per block. On failure *pnGot blocks were handed out
// and the caller owns them.
int32 CCacheFile::AllocIdleBlocks(int32 nCount, int32* pBlockNos, int32* pnGot) {
  FileBaseInfo& fb = m_fileBlockInfo;
  CLock lock(fb.mutexAlockBlock);
  *pnGot = 0;
  if (nCount <= 0) return 0;
  const int32 nOldIdle = fb.nIdleHeadNo;
  int32 nGot = 0;
  int32 nRet = 0;
  while (nGot < nCount && fb.nIdleHeadNo != kNoBlock) {
    int32 nBlock = fb.nIdleHeadNo;
    if (!IsDataBlockNo(nBlock)) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_CHAIN, "invalid idle head number %d", nBlock);
      nRet = EC_CACHE_BAD_CHAIN;
      break;
    }
    char linkBytes[4];
    nRet = ReadAt(BlockOffset(nBlock, fb.nBlockSize), linkBytes, 4);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "read idle block failed");
      break;
    }
    int32 nNext = GetInt32(linkBytes);
    if (nNext != kNoBlock && (!IsDataBlockNo(nNext) || nNext == nBlock)) {
      // The rest of the list cannot be trusted; its blocks become leaks,
      // which is safer than handing out a block twice.
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_CHAIN,
                 "invalid next block number %d in idle block %d, rest of idle list dropped", nNext,
                 nBlock);
      nNext = kNoBlock;
    }
    fb.nIdleHeadNo = nNext;
    pBlockNos[nGot++] = nBlock;
  }
  if (nRet != 0) {
    // Nothing written yet: the popped blocks are still on the list on disk.
    fb.nIdleHeadNo = nOldIdle;
    return nRet;
  }
  while (nGot < nCount && kHeaderSize + static_cast<int64>(fb.nTotalBlockNum + 1) * fb.nBlockSize <=
                              static_cast<int64>(m_nMaxFileSize) * kBytesPerMb) {
    pBlockNos[nGot++] = fb.nTotalBlockNum;
    StoreRelaxed(fb.nTotalBlockNum, fb.nTotalBlockNum + 1);
  }
  if (nGot > 0) {
    nRet = SaveFileBaseInfoToDisk();
    if (nRet != 0) {
      // The header on disk still names the popped blocks as idle: keep them
      // so in memory too. The growth mark stays raised: the blocks may be
      // counted on disk already, and a leak is harmless where a block
      // handed out twice is not.
      fb.nIdleHeadNo = nOldIdle;
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "save file base info to disk failed");
      return nRet;
    }
  }
  *pnGot = nGot;
  while (nGot < nCount) {
    nRet = PreemptDataBlock(&pBlockNos[nGot]);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "preempt data block failed");
      return nRet;
    }
    *pnGot = ++nGot;
  }
  return 0;
}

int32 CCacheFile::FreeIdleBlock(int32 nBlockNo) { return FreeIdleBlocks(&nBlockNo, 1); }

// Pushes the blocks on the idle stack in the order given (the last one ends
// on top). The links are written first, the header last, so the header never
// names a block whose link is not written; a stop in between leaves the
// blocks in no list (leaked). Callers give only blocks that no entry on disk
// names any more.
int32 CCacheFile::FreeIdleBlocks(const int32* pBlockNos, int32 nCount) {
  if (nCount <= 0) return 0;
  FileBaseInfo& fb = m_fileBlockInfo;
  CLock lock(fb.mutexAlockBlock);
  int32 nTop = fb.nIdleHeadNo;
  int32 nPushed = 0;
  int32 nRet = 0;
  for (; nPushed < nCount; ++nPushed) {
    char linkBytes[4];
    PutInt32(linkBytes, nTop);
    nRet = WriteAt(BlockOffset(pBlockNos[nPushed], fb.nBlockSize), linkBytes, 4);
    if (nRet != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nRet, "write next block number to idle block failed");
      break;
    }
    nTop = pBlockNos[nPushed];
  }
  if (nPushed == 0) return nRet;
  fb.nIdleHeadNo = nTop;
  int32 nHdrRet = SaveFileBaseInfoToDisk();
  if (nHdrRet != 0) {
    // On the list in memory only; the next header write puts it on disk.
    LOGC_WRITE(m_cat, LL_ERROR, nHdrRet, "save file base info to disk failed");
    return nHdrRet;
  }
  return nRet;
}

int32 CCacheFile::PreemptDataBlock(int32* pBlockNo) {
  // Runs under mutexAlockBlock, under which the list is appended to.
  if (m_listSrvInfo.empty()) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_NO_VICTIM, "no srv in srv list");
    return EC_CACHE_NO_VICTIM;
  }
  std::vector<const SrvInfo*> refused;
  bool bOnlyBusy = true;
  while (true) {
    SrvInfo* pVictim = nullptr;
    int32 nMaxBlockCount = 0;
    for (SrvInfo* pSrv : m_listSrvInfo) {
      int32 nUsed = LoadCount(pSrv);
      if (nUsed <= nMaxBlockCount) continue;
      bool bRefused = false;
      for (const SrvInfo* p : refused) bRefused = bRefused || p == pSrv;
      if (bRefused) continue;
      nMaxBlockCount = nUsed;
      pVictim = pSrv;
    }
    if (pVictim == nullptr) {
      if (!refused.empty() && bOnlyBusy) {
        LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "preempt data block from srv failed");
        return EC_NO_MEMORY;
      }
      if (!refused.empty()) {
        LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_NO_ROOM,
                   "no block can be taken without dropping the record being saved");
        return EC_CACHE_NO_ROOM;
      }
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_NO_VICTIM, "no srv has data block");
      return EC_CACHE_NO_VICTIM;
    }
    int32 nRet = PreemptDataBlockFromSrv(pVictim, pBlockNo);
    if (nRet == 0) return 0;
    if (nRet == EC_CACHE_NO_ROOM || nRet == EBUSY) {
      // The saving entry itself, whose records all lie in the block being
      // written, or an entry another thread holds: try the next fullest.
      refused.push_back(pVictim);
      bOnlyBusy = bOnlyBusy && nRet == EBUSY;
      continue;
    }
    LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "preempt data block from srv failed");
    return EC_NO_MEMORY;
  }
}

int32 CCacheFile::LockVictim(SrvInfo* pSrvInfo) {
  // Another thread may hold the victim's mutex while it waits for
  // mutexAlockBlock, which this thread holds: never block on it.
  for (int32 nTry = 0; nTry < kVictimLockTries; ++nTry) {
    if (pthread_mutex_trylock(pSrvInfo->mutexSrv) == 0) return 0;
    os_sleep(kVictimLockWaitMs);
  }
  LOGC_WRITE(m_cat, LL_ERROR, EBUSY, "victim srv is busy, its block can not be preempted");
  return EBUSY;
}

// Takes the victim's oldest block H and drops every record that begins in
// it. The walk only reads; the new state is decided first, then the entry is
// written (the commit), and only then are the blocks the dropped records
// covered given back (tail last). A stop between these writes leaves leaked
// blocks, never a block that is both in the chain and idle; a failure before
// the commit changes nothing.
int32 CCacheFile::PreemptDataBlockFromSrv(SrvInfo* pSrvInfo, int32* pBlockNo) {
  FileBaseInfo& fb = m_fileBlockInfo;
  const int32 nBlockSize = fb.nBlockSize;
  if (LoadCount(pSrvInfo) <= 1) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_NO_VICTIM,
               "srv has no more than one block can not be preempted");
    return EC_CACHE_NO_VICTIM;
  }
  CBlockBuf cur(nBlockSize);
  if (cur.p == nullptr) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "alloc memory for block buffer failed");
    return EC_NO_MEMORY;
  }
  int32 nRet = LockVictim(pSrvInfo);
  if (nRet != 0) return nRet;
  struct CUnlock {
    MutexHandle h;
    ~CUnlock() { pthread_mutex_unlock(h); }
  } unlock{pSrvInfo->mutexSrv};

  const bool bSelf = pSrvInfo == t_pSavingSrv;
  const int32 nHead = pSrvInfo->nHeadNo;
  const int32 nTail = pSrvInfo->nTailNo;
  int32 nUsed = pSrvInfo->nBlockNumUsed;
  if (nUsed <= 1 || nHead == nTail) {  // changed while the mutex was awaited
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_NO_VICTIM,
               "srv has no more than one block can not be preempted");
    return EC_CACHE_NO_VICTIM;
  }
  nRet = ReadAt(BlockOffset(nHead, nBlockSize), cur.p, nBlockSize);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "read data block from disk failed");
    return nRet;
  }
  auto chainError = [&]() {
    LOGC_WRITE(m_cat, LL_ERROR, -1, "srv info is in error");
    return -1;
  };
  std::vector<int32> freed;
  int32 nB = nHead;
  int32 nP = pSrvInfo->nReadOffset;
  while (nUsed > 0) {
    // Length of the next record; B is H here, so it is in the buffer.
    char lenBytes[4];
    if (nP + kRecordLenSize <= nBlockSize) {
      memcpy(lenBytes, cur.p + nP, 4);
      nP += 4;
    } else {
      int32 nK = nBlockSize - nP;
      memcpy(lenBytes, cur.p + nP, static_cast<size_t>(nK));
      nB = GetInt32(cur.p + kNextLinkOffset);
      if (!IsDataBlockNo(nB)) return chainError();
      nRet = ReadAt(BlockOffset(nB, nBlockSize) + kDataAreaOffset, lenBytes + nK, 4 - nK);
      if (nRet != 0) {
        LOGC_WRITE(m_cat, LL_ERROR, nRet, "read data block from disk failed");
        return nRet;
      }
      nP = kDataAreaOffset + (4 - nK);
      --nUsed;
    }
    int32 nRemain = GetInt32(lenBytes);
    if (nRemain <= 0) return chainError();
    while (nRemain > 0) {
      if (nP + nRemain < nBlockSize) {
        nP += nRemain;
        break;
      }
      if (nP + nRemain == nBlockSize && nB == nTail) {
        nP = nBlockSize;  // the tail's next link is never followed
        break;
      }
      if (nB == nTail) return chainError();  // a record beyond the write position
      nRemain -= nBlockSize - nP;
      int32 nNext;
      if (nB == nHead) {
        nNext = GetInt32(cur.p + kNextLinkOffset);
      } else {
        char linkBytes[4];
        nRet = ReadAt(BlockOffset(nB, nBlockSize) + kNextLinkOffset, linkBytes, 4);
        if (nRet != 0) {
          LOGC_WRITE(m_cat, LL_ERROR, nRet, "read next block number from disk failed");
          return nRet;
        }
        nNext = GetInt32(linkBytes);
        freed.push_back(nB);
      }
      if (!IsDataBlockNo(nNext)) return chainError();
      nB = nNext;
      --nUsed;
      nP = kDataAreaOffset;
    }
    if (nB != nHead) break;
  }
  if (nB == nHead) return chainError();  // the count ran out inside H
  if (nB == nTail && nP > pSrvInfo->nWriteOffset) return chainError();

  const bool bEmptied = nB == nTail && nP == pSrvInfo->nWriteOffset;
  if (bEmptied && bSelf) {
    // Every record of the saving entry begins in H; what follows is the
    // record being saved, in the tail block being written.
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_NO_ROOM,
               "preempting the saving srv would drop the record being saved");
    return EC_CACHE_NO_ROOM;
  }
  SrvInfo oldState = *pSrvInfo;
  if (bEmptied) {
    SetEmpty(pSrvInfo);
    freed.push_back(nB);
  } else {
    StoreRelaxed(pSrvInfo->nHeadNo, nB);
    pSrvInfo->nReadOffset = nP;
    StoreCount(pSrvInfo, nUsed);
  }
  bool bOldOnDisk = true;
  nRet = CommitEntry(pSrvInfo, oldState, "save srv into to disk failed", &bOldOnDisk);
  if (nRet != 0) return nRet;
  FreeIdleBlocks(freed.data(), static_cast<int32>(freed.size()));
  *pBlockNo = nHead;
  return 0;
}

// Writes the entry, the commit point of every queue operation. On failure
// the entry in memory returns to oldState and the old image is written back;
// *pbOldOnDisk tells whether the file surely holds the old image, i.e.
// whether blocks named only by the new state may be given back.
int32 CCacheFile::CommitEntry(SrvInfo* pSrvInfo, const SrvInfo& oldState, const char* szMsg,
                              bool* pbOldOnDisk) {
  int32 nRet = SaveSrvInfoToDisk(pSrvInfo);
  if (nRet == 0) return 0;
  LOGC_WRITE(m_cat, LL_ERROR, nRet, "%s", szMsg);
  CopyChainFields(pSrvInfo, oldState);
  *pbOldOnDisk = SaveSrvInfoToDisk(pSrvInfo) == 0;
  return nRet;
}

// ---- Record queue --------------------------------------------------------------------

int32 CCacheFile::SaveRecord(SrvHandle hSrvInfo, void* pRecordsBuf, int32 nBufLen) {
  if (hSrvInfo == nullptr || pRecordsBuf == nullptr || nBufLen < 1) return EC_CACHE_INVALID_ARG;
  FileBaseInfo& fb = m_fileBlockInfo;
  const int32 nBlockSize = fb.nBlockSize;
  const int64 nMaxLen = MaxRecordLen(m_nMaxBlocks, nBlockSize);
  if (nBufLen > nMaxLen) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_REC_TOO_LARGE,
               "record of %d bytes is larger than the cache file can hold (at most %lld bytes)",
               nBufLen, static_cast<long long>(nMaxLen));
    return EC_CACHE_REC_TOO_LARGE;
  }
  CLock lock(hSrvInfo->mutexSrv);
  t_cursor.bValid = false;
  const SrvInfo* pPrevSaving = t_pSavingSrv;
  t_pSavingSrv = hSrvInfo;
  struct CRestoreSaving {
    const SrvInfo* p;
    ~CRestoreSaving() { t_pSavingSrv = p; }
  } restoreSaving{pPrevSaving};

  // The entry keeps describing the committed queue until the commit below.
  // Every block the record needs is taken first; they are given back on
  // failure (the entry on disk never named them).
  const bool bWasEmpty = hSrvInfo->nTailNo == kNoBlock;
  const int32 nDataArea = nBlockSize - kDataAreaOffset;
  const int64 nStreamLen = kRecordLenSize + static_cast<int64>(nBufLen);
  int32 nStartPos = bWasEmpty ? kDataAreaOffset : hSrvInfo->nWriteOffset;
  int64 nRoom = bWasEmpty ? 0 : nBlockSize - nStartPos;
  int64 nNewBlocks = nStreamLen <= nRoom ? 0 : (nStreamLen - nRoom + nDataArea - 1) / nDataArea;
  std::vector<int32>& taken = t_taken;
  taken.assign(static_cast<size_t>(nNewBlocks), kNoBlock);
  int32 nGot = 0;
  int32 nRet = AllocIdleBlocks(static_cast<int32>(nNewBlocks), taken.data(), &nGot);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "alloc idle block failed");
    FreeIdleBlocks(taken.data(), nGot);
    return nRet;
  }
  auto fail = [&](int32 nCode, const char* szMsg) {
    LOGC_WRITE(m_cat, LL_ERROR, nCode, "%s", szMsg);
    FreeIdleBlocks(taken.data(), static_cast<int32>(taken.size()));
    return nCode;
  };

  // The stream is the 4 length bytes, then the payload, laid over the rest
  // of the current block and the data areas of the new blocks in order.
  // Each block gets one write where possible: a new block's next link
  // (offset 0) and its data (from offset 4) are contiguous, and pieces that
  // fit the per-thread staging buffer are joined there.
  char lenBytes[4];
  PutInt32(lenBytes, nBufLen);
  const char* pPayload = static_cast<const char*>(pRecordsBuf);
  auto streamAt = [&](int64 nOff, char* pDst, int64 nLen) {
    if (nOff < kRecordLenSize) {
      int64 nHead = std::min<int64>(kRecordLenSize - nOff, nLen);
      memcpy(pDst, lenBytes + nOff, static_cast<size_t>(nHead));
      pDst += nHead;
      nLen -= nHead;
      nOff += nHead;
    }
    if (nLen > 0) {
      memcpy(pDst, pPayload + (nOff - kRecordLenSize), static_cast<size_t>(nLen));
    }
  };
  const size_t nBlocks = static_cast<size_t>(nNewBlocks) + (bWasEmpty ? 0 : 1);
  using PendingBlock = PendingBlockTl;
  std::vector<PendingBlock>& pending = t_pending;
  pending.clear();
  int64 nDone = 0;
  int32 nCur = kNoBlock;
  int32 nPos = 0;
  for (size_t i = 0; i < nBlocks; ++i) {
    nCur = bWasEmpty ? taken[i] : (i == 0 ? hSrvInfo->nTailNo : taken[i - 1]);
    const int32 nStart = i == 0 ? nStartPos : kDataAreaOffset;
    const int64 nPiece = std::min<int64>(nBlockSize - nStart, nStreamLen - nDone);
    const bool bHasNext = i + 1 < nBlocks;
    const int32 nNext = bHasNext ? (bWasEmpty ? taken[i + 1] : taken[i]) : kNoBlock;
    const char* szMsg =
        nDone < kRecordLenSize ? "write record len to disk failed" : "write record to disk failed";
    // The link joins the data when they touch; in a partly filled first
    // block it is a write of its own.
    bool bLinkJoined = bHasNext && nStart == kDataAreaOffset;
    if (bHasNext && !bLinkJoined) {
      char linkBytes[4];
      PutInt32(linkBytes, nNext);
      nRet = WriteAt(BlockOffset(nCur, nBlockSize) + kNextLinkOffset, linkBytes, 4);
      if (nRet != 0) return fail(nRet, "write next block number to disk failed");
    }
    const int32 nRegionStart = bLinkJoined ? kNextLinkOffset : nStart;
    const int64 nRegion = nStart + nPiece - nRegionStart;
    if (bLinkJoined && nRegion == nBlockSize && nBlockSize == kBlockSizeSmall) {
      // A full small block: written below with its neighbours in the file.
      pending.push_back(PendingBlock{nCur, nNext, nDone});
    } else if (nRegion == 0) {
      // The record begins in the next block: nothing of it goes here.
    } else if (nRegion <= kStageMax) {
      std::vector<char>& stage = t_stage;
      if (stage.size() < static_cast<size_t>(kStageMax)) stage.resize(kStageMax);
      char* p = stage.data();
      if (bLinkJoined) PutInt32(p, nNext);
      streamAt(nDone, p + (nStart - nRegionStart), nPiece);
      nRet = WriteAt(BlockOffset(nCur, nBlockSize) + nRegionStart, p, static_cast<int32>(nRegion));
      if (nRet != 0)
        return fail(nRet, bLinkJoined ? "write next block number to disk failed" : szMsg);
    } else {
      if (bLinkJoined) {
        char linkBytes[4];
        PutInt32(linkBytes, nNext);
        nRet = WriteAt(BlockOffset(nCur, nBlockSize) + kNextLinkOffset, linkBytes, 4);
        if (nRet != 0) return fail(nRet, "write next block number to disk failed");
      }
      int64 nOff = nDone;
      int32 nAt = nStart;
      if (nOff < kRecordLenSize) {
        int32 nLen = static_cast<int32>(std::min<int64>(kRecordLenSize - nOff, nPiece));
        nRet = WriteAt(BlockOffset(nCur, nBlockSize) + nAt, lenBytes + nOff, nLen);
        if (nRet != 0) return fail(nRet, "write record len to disk failed");
        nOff += nLen;
        nAt += nLen;
      }
      int64 nRest = nDone + nPiece - nOff;
      if (nRest > 0) {
        nRet = WriteAt(BlockOffset(nCur, nBlockSize) + nAt, pPayload + (nOff - kRecordLenSize),
                       static_cast<int32>(nRest));
        if (nRet != 0) return fail(nRet, "write record to disk failed");
      }
    }
    nDone += nPiece;
    nPos = static_cast<int32>(nStart + nPiece);
  }
  // Full small blocks, each its link and 4,092 bytes of the stream, go out
  // in runs of blocks that are neighbours in the file (a growing file hands
  // out ascending numbers, the idle stack often descending ones): one write
  // per run instead of one per block.
  std::sort(pending.begin(), pending.end(),
            [](const PendingBlock& a, const PendingBlock& b) { return a.nBlockNo < b.nBlockNo; });
  for (size_t i = 0; i < pending.size();) {
    size_t j = i + 1;
    while (j < pending.size() && j - i < static_cast<size_t>(kRunBlocks) &&
           pending[j].nBlockNo == pending[j - 1].nBlockNo + 1) {
      ++j;
    }
    std::vector<char>& run = t_run;
    if (run.size() < static_cast<size_t>(kRunBlocks) * kBlockSizeSmall) {
      run.resize(static_cast<size_t>(kRunBlocks) * kBlockSizeSmall);
    }
    for (size_t k = i; k < j; ++k) {
      char* p = run.data() + (k - i) * kBlockSizeSmall;
      PutInt32(p, pending[k].nNext);
      streamAt(pending[k].nStreamOffset, p + kDataAreaOffset, nDataArea);
    }
    nRet = WriteAt(BlockOffset(pending[i].nBlockNo, nBlockSize), run.data(),
                   static_cast<int32>((j - i) * kBlockSizeSmall));
    if (nRet != 0) return fail(nRet, "write record to disk failed");
    i = j;
  }

  // Commit. A preemption of this very entry while the blocks were taken
  // may have moved its head; the snapshot is taken now.
  SrvInfo oldState = *hSrvInfo;
  if (bWasEmpty) {
    StoreRelaxed(hSrvInfo->nHeadNo, taken.front());
    hSrvInfo->nReadOffset = kDataAreaOffset;
    StoreCount(hSrvInfo, static_cast<int32>(taken.size()));
  } else {
    StoreCount(hSrvInfo, hSrvInfo->nBlockNumUsed + static_cast<int32>(taken.size()));
  }
  StoreRelaxed(hSrvInfo->nTailNo, nCur);
  hSrvInfo->nWriteOffset = nPos;
  bool bOldOnDisk = true;
  nRet = CommitEntry(hSrvInfo, oldState, "save srv into to disk failed", &bOldOnDisk);
  if (nRet != 0) {
    // Give the blocks back only when the file surely does not name them.
    if (bOldOnDisk) FreeIdleBlocks(taken.data(), static_cast<int32>(taken.size()));
    return nRet;
  }
  return 0;
}

int32 CCacheFile::ReadCurRecord(SrvHandle hSrvInfo, void* pRecordsBuf, int32* pLen) {
  if (hSrvInfo == nullptr || pRecordsBuf == nullptr || pLen == nullptr || *pLen < 1) {
    return EC_CACHE_INVALID_ARG;
  }
  const int32 nBlockSize = m_fileBlockInfo.nBlockSize;
  CLock lock(hSrvInfo->mutexSrv);
  if (hSrvInfo->nHeadNo == kNoBlock) return EC_CACHE_EMPTY;
  ReadCursor& cursor = t_cursor;
  cursor.bValid = false;
  cursor.vecLeft.clear();
  // Small blocks are read whole into a per-thread buffer: their link, the
  // length and the data then cost one read per block instead of up to three.
  const bool bWhole = nBlockSize == kBlockSizeSmall;
  char* pStage = nullptr;
  if (bWhole) {
    t_stage.resize(static_cast<size_t>(nBlockSize));
    pStage = t_stage.data();
  }
  int32 nCur = hSrvInfo->nHeadNo;
  int32 nPos = hSrvInfo->nReadOffset;
  bool bLoaded = false;  // pStage holds block nCur
  int32 nRet;
  auto readPiece = [&](int32 nOffset, char* pDst, int32 nLen, const char* szMsg) -> int32 {
    if (!bWhole) {
      int32 nR = ReadAt(BlockOffset(nCur, nBlockSize) + nOffset, pDst, nLen);
      if (nR != 0) LOGC_WRITE(m_cat, LL_ERROR, nR, "%s", szMsg);
      return nR;
    }
    if (!bLoaded) {
      int32 nR = ReadAt(BlockOffset(nCur, nBlockSize), pStage, nBlockSize);
      if (nR != 0) {
        LOGC_WRITE(m_cat, LL_ERROR, nR, "%s", szMsg);
        return nR;
      }
      bLoaded = true;
    }
    memcpy(pDst, pStage + nOffset, static_cast<size_t>(nLen));
    return 0;
  };
  auto next = [&]() -> int32 {
    char linkBytes[4];
    int32 nR = readPiece(kNextLinkOffset, linkBytes, 4, "read next block number from disk failed");
    if (nR != 0) return nR;
    int32 nNext = GetInt32(linkBytes);
    if (nCur == hSrvInfo->nTailNo || !IsDataBlockNo(nNext) ||
        static_cast<int32>(cursor.vecLeft.size()) + 1 >= hSrvInfo->nBlockNumUsed) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_CHAIN, "invalid next block number %d of block %d",
                 nNext, nCur);
      return EC_CACHE_BAD_CHAIN;
    }
    cursor.vecLeft.push_back(nCur);
    nCur = nNext;
    bLoaded = false;
    return 0;
  };
  char lenBytes[4];
  if (nPos + kRecordLenSize <= nBlockSize) {
    nRet = readPiece(nPos, lenBytes, 4, "read record len from disk failed");
    if (nRet != 0) return nRet;
    nPos += 4;
  } else {
    int32 nK = nBlockSize - nPos;
    if (nK > 0) {
      nRet = readPiece(nPos, lenBytes, nK, "read record len from disk failed");
      if (nRet != 0) return nRet;
    }
    nRet = next();
    if (nRet != 0) return nRet;
    nRet = readPiece(kDataAreaOffset, lenBytes + nK, 4 - nK, "read record len from disk failed");
    if (nRet != 0) return nRet;
    nPos = kDataAreaOffset + (4 - nK);
  }
  int32 nRecLen = GetInt32(lenBytes);
  if (nRecLen <= 0) return EC_CACHE_BAD_REC_LEN;
  if (*pLen < nRecLen) {
    *pLen = nRecLen;
    return EC_CACHE_BUF_SMALL;
  }
  char* pDst = static_cast<char*>(pRecordsBuf);
  int32 nRemain = nRecLen;
  while (nRemain > 0) {
    if (nPos + nRemain <= nBlockSize) {
      nRet = readPiece(nPos, pDst, nRemain, "read record from disk failed");
      if (nRet != 0) return nRet;
      nPos += nRemain;
      break;
    }
    int32 nK = nBlockSize - nPos;
    if (nK > 0) {
      nRet = readPiece(nPos, pDst, nK, "read record from disk failed");
      if (nRet != 0) return nRet;
      pDst += nK;
      nRemain -= nK;
    }
    nRet = next();
    if (nRet != 0) return nRet;
    nPos = kDataAreaOffset;
  }
  // Where the record ends and which blocks it leaves, for the removal that
  // normally follows (see DelCurRecord).
  cursor.nEpoch = m_nEpoch;
  cursor.pSrv = hSrvInfo;
  cursor.nHeadNo = hSrvInfo->nHeadNo;
  cursor.nReadOffset = hSrvInfo->nReadOffset;
  cursor.nTailNo = hSrvInfo->nTailNo;
  cursor.nWriteOffset = hSrvInfo->nWriteOffset;
  cursor.nBlockNumUsed = hSrvInfo->nBlockNumUsed;
  cursor.nEndBlock = nCur;
  cursor.nEndPos = nPos;
  cursor.bValid = true;
  *pLen = nRecLen;
  return 0;
}

// Removes the oldest record. The walk only reads; the entry is written
// first (the commit) and the blocks the removal left are given back after
// it, so the file never names a block that is already idle. A stop between
// the two leaves those blocks leaked.
int32 CCacheFile::DelCurRecord(SrvHandle hSrvInfo) {
  if (hSrvInfo == nullptr) return EC_CACHE_INVALID_ARG;
  const int32 nBlockSize = m_fileBlockInfo.nBlockSize;
  CLock lock(hSrvInfo->mutexSrv);
  if (hSrvInfo->nHeadNo == kNoBlock) return EC_CACHE_EMPTY;
  int32 nCur = hSrvInfo->nHeadNo;
  int32 nPos = hSrvInfo->nReadOffset;
  int32 nRet;
  std::vector<int32> left;
  ReadCursor& cursor = t_cursor;
  // The record was just read on this thread and the entry has not changed
  // since: its end and the blocks it leaves are known. Committed records
  // never change, and every change of the entry changes one of the fields
  // compared (a preemption moves the head; saves clear the cursor).
  const bool bKnown = cursor.bValid && cursor.nEpoch == m_nEpoch && cursor.pSrv == hSrvInfo &&
                      cursor.nHeadNo == nCur && cursor.nReadOffset == nPos &&
                      cursor.nTailNo == hSrvInfo->nTailNo &&
                      cursor.nWriteOffset == hSrvInfo->nWriteOffset &&
                      cursor.nBlockNumUsed == hSrvInfo->nBlockNumUsed;
  cursor.bValid = false;
  auto next = [&]() -> int32 {
    char linkBytes[4];
    int32 nR = ReadAt(BlockOffset(nCur, nBlockSize) + kNextLinkOffset, linkBytes, 4);
    if (nR != 0) {
      LOGC_WRITE(m_cat, LL_ERROR, nR, "read next block number from disk failed");
      return nR;
    }
    int32 nNext = GetInt32(linkBytes);
    if (nCur == hSrvInfo->nTailNo || !IsDataBlockNo(nNext) ||
        static_cast<int32>(left.size()) + 1 >= hSrvInfo->nBlockNumUsed) {
      LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_CHAIN, "invalid next block number %d of block %d",
                 nNext, nCur);
      return EC_CACHE_BAD_CHAIN;
    }
    left.push_back(nCur);
    nCur = nNext;
    return 0;
  };
  if (bKnown) {
    left.swap(cursor.vecLeft);
    nCur = cursor.nEndBlock;
    nPos = cursor.nEndPos;
  } else {
    char lenBytes[4];
    if (nPos + kRecordLenSize <= nBlockSize) {
      nRet = ReadAt(BlockOffset(nCur, nBlockSize) + nPos, lenBytes, 4);
      if (nRet != 0) {
        LOGC_WRITE(m_cat, LL_ERROR, nRet, "read record len from disk failed");
        return nRet;
      }
      nPos += 4;
    } else {
      int32 nK = nBlockSize - nPos;
      if (nK > 0) {
        nRet = ReadAt(BlockOffset(nCur, nBlockSize) + nPos, lenBytes, nK);
        if (nRet != 0) {
          LOGC_WRITE(m_cat, LL_ERROR, nRet, "read record len from disk failed");
          return nRet;
        }
      }
      nRet = next();
      if (nRet != 0) return nRet;
      nRet = ReadAt(BlockOffset(nCur, nBlockSize) + kDataAreaOffset, lenBytes + nK, 4 - nK);
      if (nRet != 0) {
        LOGC_WRITE(m_cat, LL_ERROR, nRet, "read record len from disk failed");
        return nRet;
      }
      nPos = kDataAreaOffset + (4 - nK);
    }
    int32 nRemain = GetInt32(lenBytes);
    if (nRemain <= 0) return EC_CACHE_BAD_REC_LEN;
    while (nRemain > 0) {
      if (nPos + nRemain <= nBlockSize) {
        nPos += nRemain;
        break;
      }
      nRemain -= nBlockSize - nPos;
      nRet = next();
      if (nRet != 0) return nRet;
      nPos = kDataAreaOffset;
    }
  }
  if (nCur == hSrvInfo->nTailNo && nPos > hSrvInfo->nWriteOffset) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_CHAIN,
               "record ends at %d beyond the write position %d", nPos, hSrvInfo->nWriteOffset);
    return EC_CACHE_BAD_CHAIN;
  }
  SrvInfo oldState = *hSrvInfo;
  if (nCur == hSrvInfo->nTailNo && nPos == hSrvInfo->nWriteOffset) {
    left.push_back(nCur);
    SetEmpty(hSrvInfo);
  } else {
    StoreRelaxed(hSrvInfo->nHeadNo, nCur);
    hSrvInfo->nReadOffset = nPos;
    StoreCount(hSrvInfo, hSrvInfo->nBlockNumUsed - static_cast<int32>(left.size()));
  }
  bool bOldOnDisk = true;
  nRet = CommitEntry(hSrvInfo, oldState, "save srv info to disk failed", &bOldOnDisk);
  if (nRet != 0) return nRet;
  FreeIdleBlocks(left.data(), static_cast<int32>(left.size()));
  return 0;
}

// The entry is written empty first (the commit); then the chain goes back to
// the idle list, but only when walking it from the head reaches the tail in
// exactly nBlockNumUsed blocks. A damaged chain might lead into blocks that
// belong to someone else: its blocks are left leaked instead (the checker
// reports them), never given back twice.
int32 CCacheFile::DropAllRecords(SrvHandle hSrvInfo, int32* pnBlocks) {
  if (hSrvInfo == nullptr || pnBlocks == nullptr) return EC_CACHE_INVALID_ARG;
  *pnBlocks = 0;
  const int32 nBlockSize = m_fileBlockInfo.nBlockSize;
  CLock lock(hSrvInfo->mutexSrv);
  t_cursor.bValid = false;
  if (hSrvInfo->nHeadNo == kNoBlock) return 0;
  std::vector<int32> chain;
  bool bWhole = false;
  for (int32 nCur = hSrvInfo->nHeadNo;
       IsDataBlockNo(nCur) && static_cast<int32>(chain.size()) < hSrvInfo->nBlockNumUsed;) {
    if (std::find(chain.begin(), chain.end(), nCur) != chain.end()) break;  // a cycle
    chain.push_back(nCur);
    if (nCur == hSrvInfo->nTailNo) {
      bWhole = static_cast<int32>(chain.size()) == hSrvInfo->nBlockNumUsed;
      break;
    }
    char linkBytes[4];
    if (ReadAt(BlockOffset(nCur, nBlockSize) + kNextLinkOffset, linkBytes, 4) != 0) break;
    nCur = GetInt32(linkBytes);
  }
  SrvInfo oldState = *hSrvInfo;
  SetEmpty(hSrvInfo);
  bool bOldOnDisk = true;
  int32 nRet = CommitEntry(hSrvInfo, oldState, "save srv info to disk failed", &bOldOnDisk);
  if (nRet != 0) return nRet;
  if (bWhole) {
    FreeIdleBlocks(chain.data(), static_cast<int32>(chain.size()));
    *pnBlocks = static_cast<int32>(chain.size());
  } else {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_BAD_CHAIN,
               "damaged chain of %d blocks left leaked, not given back", oldState.nBlockNumUsed);
  }
  return 0;
}

void CCacheFile::GetFill(int32* pnDataBlocks, int32* pnMaxBlocks) {
  int64 nUsed = 0;
  for (const SrvInfo* pSrv : m_listSrvInfo) nUsed += LoadCount(pSrv);
  *pnDataBlocks = static_cast<int32>(nUsed);
  *pnMaxBlocks = static_cast<int32>(m_nMaxBlocks);
}
