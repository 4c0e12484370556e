#include "CacheFileCheck.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "CacheFileFormat.h"
#include "zdos.h"

using namespace cachefile;

namespace {

enum BlockOwner : int32 { kOwnerNone = -3, kOwnerSrvInfo = -2, kOwnerIdle = -1 };  // >= 0: entry

class CChecker {
 public:
  CChecker(HANDLE hFile, std::vector<CacheCheckFinding>* pFindings,
           std::vector<CacheQueueStat>* pStats)
      : m_hFile(hFile), m_pFindings(pFindings), m_pStats(pStats) {}

  int32 Run(int32 nMaxFileSizeMb, const CacheCheckState* pState);

 private:
  void Add(int32 nKind, const char* szFormat, ...) __attribute__((format(printf, 3, 4)));
  int32 ReadInt32(int64 nOffset, int32* pn);
  bool ValidBlock(int32 n) const { return n >= 0 && n < m_nTotal; }
  bool CheckEntry(int32 nIndex, const SrvInfo& entry);

  HANDLE m_hFile;
  std::vector<CacheCheckFinding>* m_pFindings;
  std::vector<CacheQueueStat>* m_pStats;
  int32 m_nBlockSize = 0;
  int32 m_nTotal = 0;
  int32 m_nReadStatus = 0;
  std::vector<int32> m_vecOwner;
};

void CChecker::Add(int32 nKind, const char* szFormat, ...) {
  char szText[512];
  va_list args;
  va_start(args, szFormat);
  vsnprintf(szText, sizeof(szText), szFormat, args);
  va_end(args);
  m_pFindings->push_back(CacheCheckFinding{nKind, szText});
}

int32 CChecker::ReadInt32(int64 nOffset, int32* pn) {
  char bytes[4];
  int32 nDone = 0;
  int32 nRet = cache_file_pread(m_hFile, nOffset, bytes, 4, &nDone);
  if (nRet != 0 && m_nReadStatus == 0) m_nReadStatus = nRet;
  memcpy(pn, bytes, 4);
  return nRet;
}

// Checks one non-empty entry's chain and record stream; false when it names
// a block another owner holds (the caller reports which).
bool CChecker::CheckEntry(int32 nIndex, const SrvInfo& e) {
  const int32 nBs = m_nBlockSize;
  if (!ValidBlock(e.nHeadNo) || e.nHeadNo == 0 || !ValidBlock(e.nTailNo) || e.nTailNo == 0) {
    Add(CACHE_CHECK_DAMAGE, "entry %d (block %d slot %d): head %d or tail %d out of range", nIndex,
        e.nBlockNo, e.nOrderInBlock, e.nHeadNo, e.nTailNo);
    return true;
  }
  if (e.nBlockNumUsed < 1 || e.nBlockNumUsed > m_nTotal) {
    Add(CACHE_CHECK_DAMAGE, "entry %d: block count %d out of range", nIndex, e.nBlockNumUsed);
    return true;
  }
  if (e.nReadOffset < kDataAreaOffset || e.nReadOffset > nBs || e.nWriteOffset < kDataAreaOffset ||
      e.nWriteOffset > nBs) {
    Add(CACHE_CHECK_DAMAGE, "entry %d: read offset %d or write offset %d out of range", nIndex,
        e.nReadOffset, e.nWriteOffset);
    return true;
  }
  // The chain: nBlockNumUsed blocks from head, ending at tail.
  std::vector<int32> chain;
  int32 nBlock = e.nHeadNo;
  for (int32 i = 0; i < e.nBlockNumUsed; ++i) {
    if (!ValidBlock(nBlock) || nBlock == 0) {
      Add(CACHE_CHECK_DAMAGE, "entry %d: link %d of its chain points to block %d", nIndex, i,
          nBlock);
      return true;
    }
    int32 nOwner = m_vecOwner[static_cast<size_t>(nBlock)];
    if (nOwner != kOwnerNone) {
      Add(CACHE_CHECK_DAMAGE, "entry %d: block %d of its chain is also %s", nIndex, nBlock,
          nOwner == kOwnerSrvInfo ? "a server-info block" : "in another chain");
      return false;
    }
    m_vecOwner[static_cast<size_t>(nBlock)] = nIndex;
    chain.push_back(nBlock);
    if (i + 1 < e.nBlockNumUsed) {
      if (nBlock == e.nTailNo) {
        Add(CACHE_CHECK_DAMAGE, "entry %d: tail %d reached after %d of %d blocks", nIndex, nBlock,
            i + 1, e.nBlockNumUsed);
        return true;
      }
      if (ReadInt32(BlockOffset(nBlock, nBs), &nBlock) != 0) return true;
    }
  }
  if (chain.back() != e.nTailNo) {
    Add(CACHE_CHECK_DAMAGE, "entry %d: chain of %d blocks ends at %d, not at tail %d", nIndex,
        e.nBlockNumUsed, chain.back(), e.nTailNo);
    return true;
  }
  // The record stream from the read position to the write position.
  size_t nIdx = 0;
  int32 nPos = e.nReadOffset;
  int64 nRecords = 0;
  int64 nBytes = 0;
  const size_t nLast = chain.size() - 1;
  auto atEnd = [&]() { return nIdx == nLast && nPos == e.nWriteOffset; };
  auto beyondEnd = [&]() { return nIdx == nLast && nPos > e.nWriteOffset; };
  while (!atEnd()) {
    if (beyondEnd()) {
      Add(CACHE_CHECK_DAMAGE, "entry %d: record stream passes the write position %d (at %d)",
          nIndex, e.nWriteOffset, nPos);
      return true;
    }
    char lenBytes[4];
    int32 nHave = 0;
    while (nHave < 4) {
      if (nPos == nBs) {
        if (nIdx == nLast) {
          Add(CACHE_CHECK_DAMAGE, "entry %d: length field runs past the tail block", nIndex);
          return true;
        }
        ++nIdx;
        nPos = kDataAreaOffset;
      }
      int32 nTake = std::min(4 - nHave, nBs - nPos);
      int32 nDone = 0;
      int32 nRet =
          cache_file_pread(m_hFile, BlockOffset(chain[nIdx], nBs) + nPos, lenBytes + nHave, nTake, &nDone);
      if (nRet != 0) {
        if (m_nReadStatus == 0) m_nReadStatus = nRet;
        return true;
      }
      nHave += nTake;
      nPos += nTake;
    }
    int32 nLen;
    memcpy(&nLen, lenBytes, 4);
    if (nLen < 1) {
      Add(CACHE_CHECK_DAMAGE, "entry %d: record %lld has length %d", nIndex,
          static_cast<long long>(nRecords), nLen);
      return true;
    }
    int64 nRemain = nLen;
    while (nRemain > 0) {
      if (nPos + nRemain <= nBs) {
        nPos += static_cast<int32>(nRemain);
        break;
      }
      nRemain -= nBs - nPos;
      if (nIdx == nLast) {
        Add(CACHE_CHECK_DAMAGE, "entry %d: record %lld of %d bytes runs past the tail block",
            nIndex, static_cast<long long>(nRecords), nLen);
        return true;
      }
      ++nIdx;
      nPos = kDataAreaOffset;
    }
    ++nRecords;
    nBytes += nLen;
    // A record ending at a block end other than the tail's: the next one
    // begins at offset 4 of the next block.
    if (nPos == nBs && nIdx != nLast) {
      ++nIdx;
      nPos = kDataAreaOffset;
    }
  }
  if (nRecords == 0) {
    Add(CACHE_CHECK_DAMAGE, "entry %d: holds blocks but no record", nIndex);
  }
  if (nIdx != nLast) {
    Add(CACHE_CHECK_DAMAGE, "entry %d: blocks behind the last record", nIndex);
  }
  if (m_pStats != nullptr) {
    m_pStats->push_back(CacheQueueStat{e.nIP, e.nPort, e.nBlockNo, e.nOrderInBlock, e.nBlockNumUsed,
                                       nRecords, nBytes});
  }
  return true;
}

int32 CChecker::Run(int32 nMaxFileSizeMb, const CacheCheckState* pState) {
  int64 nSize = 0;
  int32 nRet = os_file_get_size(m_hFile, &nSize);
  if (nRet != 0) return nRet;
  if (nSize < kHeaderSize) {
    Add(CACHE_CHECK_DAMAGE, "file of %lld bytes is shorter than its header",
        static_cast<long long>(nSize));
    return 0;
  }
  char hdr[kHeaderSize];
  int32 nDone = 0;
  nRet = cache_file_pread(m_hFile, 0, hdr, kHeaderSize, &nDone);
  if (nRet != 0) return nRet;
  int32 nIdleHead, nSrvHead, nSrvTail;
  memcpy(&m_nBlockSize, hdr + kHdrBlockSizeOffset, 4);
  memcpy(&m_nTotal, hdr + kHdrTotalBlockNumOffset, 4);
  memcpy(&nIdleHead, hdr + kHdrIdleHeadOffset, 4);
  memcpy(&nSrvHead, hdr + kHdrSrvInfoHeadOffset, 4);
  memcpy(&nSrvTail, hdr + kHdrSrvInfoTailOffset, 4);
  if (pState != nullptr && pState->bHeader) {
    m_nBlockSize = pState->nBlockSize;
    m_nTotal = pState->nTotalBlockNum;
    nIdleHead = pState->nIdleHeadNo;
    nSrvHead = pState->nSrvInfoHeadNo;
    nSrvTail = pState->nSrvInfoTailNo;
  }
  const int32 nBs = m_nBlockSize;
  if (nBs != kBlockSizeSmall && nBs != kBlockSizeLarge) {
    Add(CACHE_CHECK_DAMAGE, "header: invalid block size %d", nBs);
    return 0;
  }
  uint16 nVersionLen;
  memcpy(&nVersionLen, hdr + kHdrVersionLenOffset, 2);
  if (nVersionLen < 1 || nVersionLen > kVersionFieldSize ||
      hdr[kHdrVersionOffset + nVersionLen - 1] != '\0') {
    Add(CACHE_CHECK_DAMAGE, "header: invalid version length %u", nVersionLen);
  }
  const int64 nMaxBlocks = MaxBlockCount(nMaxFileSizeMb, nBs);
  if (nSize / kBytesPerMb > nMaxFileSizeMb) {
    Add(CACHE_CHECK_DAMAGE, "file of %lld bytes is larger than the configured %d MB",
        static_cast<long long>(nSize), nMaxFileSizeMb);
  }
  if (m_nTotal < 1 || m_nTotal > nMaxBlocks) {
    Add(CACHE_CHECK_DAMAGE, "header: block count %d outside 1..%lld", m_nTotal,
        static_cast<long long>(nMaxBlocks));
    return 0;
  }
  if (nSize > BlockOffset(m_nTotal, nBs)) {
    Add(CACHE_CHECK_DAMAGE, "file of %lld bytes is longer than its %d blocks",
        static_cast<long long>(nSize), m_nTotal);
  }
  if (nSrvHead != 0) {
    Add(CACHE_CHECK_DAMAGE, "header: server-info head %d is not 0", nSrvHead);
    return 0;
  }
  m_vecOwner.assign(static_cast<size_t>(m_nTotal), kOwnerNone);

  // Server-info chain.
  const int32 nMaxCount = MaxEntriesPerBlock(nBs);
  std::vector<SrvInfo> vecEntries;
  std::vector<std::string> vecEntryBytes;
  std::vector<char> block(static_cast<size_t>(nBs));
  int32 nBlock = 0;
  int32 nPrev = kNoBlock;
  while (true) {
    if (!ValidBlock(nBlock) || m_vecOwner[static_cast<size_t>(nBlock)] != kOwnerNone) {
      Add(CACHE_CHECK_DAMAGE, "server-info chain: bad or repeated block %d before tail %d", nBlock,
          nSrvTail);
      return m_nReadStatus;
    }
    m_vecOwner[static_cast<size_t>(nBlock)] = kOwnerSrvInfo;
    nRet = cache_file_pread(m_hFile, BlockOffset(nBlock, nBs), block.data(), nBs, &nDone);
    if (nRet != 0) return nRet;
    int32 nNext, nPrevLink, nCount;
    memcpy(&nNext, block.data() + kSibNextOffset, 4);
    memcpy(&nPrevLink, block.data() + kSibPrevOffset, 4);
    memcpy(&nCount, block.data() + kSibCountOffset, 4);
    if (nPrevLink != nPrev) {
      Add(CACHE_CHECK_DAMAGE, "server-info block %d: previous link %d, expected %d", nBlock,
          nPrevLink, nPrev);
    }
    if (nCount < 0 || nCount > nMaxCount) {
      Add(CACHE_CHECK_DAMAGE, "server-info block %d: entry count %d", nBlock, nCount);
      nCount = 0;
    }
    for (int32 i = 0; i < nCount; ++i) {
      const char* p = block.data() + kSibHeaderSize + static_cast<int64>(i) * kEntrySize;
      SrvInfo e{};
      DecodeSrvEntry(p, &e);
      e.nBlockNo = nBlock;
      e.nOrderInBlock = i + 1;
      vecEntries.push_back(e);
      vecEntryBytes.emplace_back(p, kEntrySize);
    }
    if (nBlock == nSrvTail) break;
    nPrev = nBlock;
    nBlock = nNext;
  }
  if (pState != nullptr && pState->bEntries) {
    vecEntries = pState->vecEntries;
    vecEntryBytes.assign(vecEntries.size(), std::string());
  }

  // Entries and their queues.
  for (size_t i = 0; i < vecEntries.size(); ++i) {
    const SrvInfo& e = vecEntries[i];
    if (e.nHeadNo == kNoBlock || e.nTailNo == kNoBlock) {
      if (e.nHeadNo != e.nTailNo || e.nBlockNumUsed != 0) {
        Add(CACHE_CHECK_DAMAGE, "entry %zu: half-empty (head %d, tail %d, %d blocks)", i, e.nHeadNo,
            e.nTailNo, e.nBlockNumUsed);
      }
      continue;
    }
    bool bDuplicate = false;
    for (size_t j = 0; j < i && !vecEntryBytes[i].empty(); ++j) {
      bDuplicate = bDuplicate || vecEntryBytes[j] == vecEntryBytes[i];
    }
    if (bDuplicate) {
      Add(CACHE_CHECK_DUPLICATE, "entry %zu (block %d slot %d) is a copy of an earlier entry", i,
          e.nBlockNo, e.nOrderInBlock);
      continue;
    }
    CheckEntry(static_cast<int32>(i), e);
    if (m_nReadStatus != 0) return m_nReadStatus;
  }

  // Idle list.
  nBlock = nIdleHead;
  int32 nSteps = 0;
  while (nBlock != kNoBlock) {
    if (!ValidBlock(nBlock) || nBlock == 0) {
      Add(CACHE_CHECK_DAMAGE, "idle list: link to block %d after %d blocks", nBlock, nSteps);
      break;
    }
    int32 nOwner = m_vecOwner[static_cast<size_t>(nBlock)];
    if (nOwner != kOwnerNone) {
      Add(CACHE_CHECK_DAMAGE, "idle list: block %d is also %s", nBlock,
          nOwner == kOwnerIdle      ? "earlier on the idle list (a loop)"
          : nOwner == kOwnerSrvInfo ? "a server-info block"
                                    : "in a chain");
      break;
    }
    m_vecOwner[static_cast<size_t>(nBlock)] = kOwnerIdle;
    ++nSteps;
    if (ReadInt32(BlockOffset(nBlock, nBs), &nBlock) != 0) return m_nReadStatus;
  }

  for (int32 n = 0; n < m_nTotal; ++n) {
    if (m_vecOwner[static_cast<size_t>(n)] == kOwnerNone) {
      Add(CACHE_CHECK_LEAK, "block %d is in no chain and not on the idle list", n);
    }
  }
  return m_nReadStatus;
}

}  // namespace

int32 cache_file_check_state(const char* szPath, int32 nMaxFileSizeMb,
                             const CacheCheckState* pState,
                             std::vector<CacheCheckFinding>* pFindings,
                             std::vector<CacheQueueStat>* pStats) {
  if (szPath == nullptr || pFindings == nullptr || nMaxFileSizeMb < 1) return OS_EINVAL_ARG;
  HANDLE hFile = -1;
  int32 nRet = os_file_open(szPath, O_RDONLY, &hFile);
  if (nRet != 0) return nRet;
  CChecker checker(hFile, pFindings, pStats);
  nRet = checker.Run(nMaxFileSizeMb, pState);
  os_file_close(hFile);
  return nRet;
}

int32 cache_file_check(const char* szPath, int32 nMaxFileSizeMb,
                       std::vector<CacheCheckFinding>* pFindings,
                       std::vector<CacheQueueStat>* pStats) {
  return cache_file_check_state(szPath, nMaxFileSizeMb, nullptr, pFindings, pStats);
}

int32 cache_check_count(const std::vector<CacheCheckFinding>& vecFindings, int32 nKind) {
  int32 n = 0;
  for (const CacheCheckFinding& f : vecFindings) n += f.nKind == nKind ? 1 : 0;
  return n;
}

int32 cache_file_pread(int32 nFd, int64 nOffset, void* pBuf, int32 nLen, int32* pnDone) {
  char* p = static_cast<char*>(pBuf);
  int32 nDone = 0;
  while (nDone < nLen) {
    ssize_t n = pread(nFd, p + nDone, static_cast<size_t>(nLen - nDone), nOffset + nDone);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) break;
    nDone += static_cast<int32>(n);
  }
  memset(p + nDone, 0, static_cast<size_t>(nLen - nDone));
  if (pnDone != nullptr) *pnDone = nDone;
  return 0;
}
