#include "cache_reader.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "CacheFileCheck.h"
#include "CacheFileFormat.h"

using namespace cachefile;

CCacheReader::~CCacheReader() {
  if (m_nFd >= 0) close(m_nFd);
}

int32 CCacheReader::Open(const char* szPath) {
  if (szPath == nullptr) return EINVAL;
  int nFd;
  do {
    nFd = open(szPath, O_RDONLY | O_CLOEXEC);
  } while (nFd < 0 && errno == EINTR);
  if (nFd < 0) return errno;
  struct stat st;
  if (fstat(nFd, &st) != 0) {
    int nErr = errno;
    close(nFd);
    return nErr;
  }
  if (!S_ISREG(st.st_mode)) {
    close(nFd);
    return EINVAL;
  }
  if (m_nFd >= 0) close(m_nFd);
  m_nFd = nFd;
  m_nFileSize = st.st_size;
  m_bHeader = false;
  return 0;
}

int32 CCacheReader::ReadAt(int64 nOffset, void* pBuf, int32 nLen) {
  return cache_file_pread(m_nFd, nOffset, pBuf, nLen, nullptr);
}

int32 CCacheReader::LoadHeader(CacheHeaderView* pHeader) {
  char hdr[kHeaderSize];
  int32 nRet = ReadAt(0, hdr, kHeaderSize);
  if (nRet != 0) return nRet;
  CacheHeaderView h{};
  memcpy(&h.nBlockSize, hdr + kHdrBlockSizeOffset, 4);
  memcpy(&h.nTotalBlockNum, hdr + kHdrTotalBlockNumOffset, 4);
  memcpy(&h.nIdleHeadNo, hdr + kHdrIdleHeadOffset, 4);
  memcpy(&h.nSrvInfoHeadNo, hdr + kHdrSrvInfoHeadOffset, 4);
  memcpy(&h.nSrvInfoTailNo, hdr + kHdrSrvInfoTailOffset, 4);
  memcpy(&h.nVersionLen, hdr + kHdrVersionLenOffset, 2);
  // Whatever the length field says, only the version field is read and the
  // copy stays terminated.
  memcpy(h.szVersion, hdr + kHdrVersionOffset, kVersionMaxChars);
  h.szVersion[kVersionMaxChars] = '\0';
  *pHeader = h;
  m_header = h;
  m_bHeader = m_nFileSize >= kHeaderSize &&
              (h.nBlockSize == kBlockSizeSmall || h.nBlockSize == kBlockSizeLarge) &&
              h.nTotalBlockNum >= 1;
  return m_bHeader ? 0 : CACHE_READ_BAD_HEADER;
}

int32 CCacheReader::LoadEntries(std::vector<CacheEntryView>* pEntries,
                                std::vector<int32>* pSrvInfoBlocks) {
  pEntries->clear();
  pSrvInfoBlocks->clear();
  if (!m_bHeader) return CACHE_READ_BAD_HEADER;
  const int32 nBs = m_header.nBlockSize;
  const int32 nTotal = m_header.nTotalBlockNum;
  const int32 nMaxCount = MaxEntriesPerBlock(nBs);
  std::vector<char> block(static_cast<size_t>(nBs));
  std::vector<std::string> vecRaw;  // for duplicate detection; scrubbed below
  std::vector<bool> vecSeen(static_cast<size_t>(nTotal), false);
  int32 nRet = 0;
  int32 nBlock = 0;
  while (nRet == 0) {
    if (nBlock < 0 || nBlock >= nTotal || vecSeen[static_cast<size_t>(nBlock)]) {
      nRet = CACHE_READ_BAD_CHAIN;
      break;
    }
    vecSeen[static_cast<size_t>(nBlock)] = true;
    pSrvInfoBlocks->push_back(nBlock);
    nRet = ReadAt(BlockOffset(nBlock, nBs), block.data(), nBs);
    if (nRet != 0) break;
    int32 nNext, nCount;
    memcpy(&nNext, block.data() + kSibNextOffset, 4);
    memcpy(&nCount, block.data() + kSibCountOffset, 4);
    if (nCount < 0 || nCount > nMaxCount) {
      nRet = CACHE_READ_BAD_CHAIN;
      break;
    }
    for (int32 i = 0; i < nCount; ++i) {
      const char* p = block.data() + kSibHeaderSize + static_cast<int64>(i) * kEntrySize;
      CacheEntryView e{};
      e.nIndex = static_cast<int32>(pEntries->size()) + 1;
      e.nBlockNo = nBlock;
      e.nSlot = i + 1;
      e.nIsIPV4 = static_cast<uint8>(p[kEntIsIpv4Offset]);
      memcpy(&e.nIP, p + kEntAddrOffset, 4);
      memcpy(&e.nPort, p + kEntPortOffset, 2);
      memcpy(&e.nBlockNumUsed, p + kEntBlockNumUsedOffset, 4);
      memcpy(&e.nHeadNo, p + kEntHeadNoOffset, 4);
      memcpy(&e.nTailNo, p + kEntTailNoOffset, 4);
      memcpy(&e.nReadOffset, p + kEntReadOffsetOffset, 4);
      memcpy(&e.nWriteOffset, p + kEntWriteOffsetOffset, 4);
      memcpy(e.szUser, p + kEntUserOffset, kEntUserSize - 1);
      e.szUser[kEntUserSize - 1] = '\0';
      std::string strRaw(p, kEntrySize);
      // The same rule as the checker: a non-empty entry identical to an
      // earlier one is the second copy an interrupted start-up move leaves.
      e.bDuplicate =
          e.HasRecords() && std::find(vecRaw.begin(), vecRaw.end(), strRaw) != vecRaw.end();
      vecRaw.push_back(std::move(strRaw));
      pEntries->push_back(e);
    }
    if (nBlock == m_header.nSrvInfoTailNo) break;
    nBlock = nNext;
  }
  // The raw entries and the block hold passwords: do not leave them behind.
  for (std::string& s : vecRaw) explicit_bzero(s.data(), s.size());
  explicit_bzero(block.data(), block.size());
  return nRet;
}

int32 CCacheReader::LoadChain(const CacheEntryView& e, std::vector<int32>* pBlocks) {
  pBlocks->clear();
  if (!m_bHeader) return CACHE_READ_BAD_HEADER;
  if (!e.HasRecords()) return 0;
  const int32 nTotal = m_header.nTotalBlockNum;
  if (e.nBlockNumUsed < 1 || e.nBlockNumUsed > nTotal) return CACHE_READ_BAD_CHAIN;
  std::vector<bool> vecSeen(static_cast<size_t>(nTotal), false);
  int32 nBlock = e.nHeadNo;
  for (int32 i = 0; i < e.nBlockNumUsed; ++i) {
    if (nBlock <= 0 || nBlock >= nTotal || vecSeen[static_cast<size_t>(nBlock)]) {
      return CACHE_READ_BAD_CHAIN;
    }
    vecSeen[static_cast<size_t>(nBlock)] = true;
    pBlocks->push_back(nBlock);
    if (i + 1 < e.nBlockNumUsed) {
      int32 nRet = ReadAt(BlockOffset(nBlock, m_header.nBlockSize) + kNextLinkOffset, &nBlock,
                          kNextLinkSize);
      if (nRet != 0) return nRet;
    }
  }
  return pBlocks->back() == e.nTailNo ? 0 : CACHE_READ_BAD_CHAIN;
}

int32 CCacheReader::ForEachRecord(const CacheEntryView& e, std::vector<char>* pBuf,
                                  const std::function<bool(const char*, int32)>& fnRecord) {
  std::vector<int32> chain;
  int32 nRet = LoadChain(e, &chain);
  if (nRet != 0 || chain.empty()) return nRet;
  const int32 nBs = m_header.nBlockSize;
  if (e.nReadOffset < kDataAreaOffset || e.nReadOffset > nBs || e.nWriteOffset < kDataAreaOffset ||
      e.nWriteOffset > nBs) {
    return CACHE_READ_BAD_CHAIN;
  }
  const size_t nLast = chain.size() - 1;
  size_t nIdx = 0;
  int32 nPos = e.nReadOffset;
  // Stream bytes from (nIdx, nPos) to the write position.
  auto remaining = [&]() -> int64 {
    if (nIdx == nLast) return e.nWriteOffset - nPos;
    return static_cast<int64>(nBs - nPos) + e.nWriteOffset - kDataAreaOffset +
           static_cast<int64>(nLast - nIdx - 1) * (nBs - kDataAreaOffset);
  };
  // Copies nLen stream bytes to pOut, stepping over block ends.
  auto take = [&](char* pOut, int64 nLen) -> int32 {
    while (nLen > 0) {
      if (nPos == nBs) {
        ++nIdx;
        nPos = kDataAreaOffset;
      }
      int32 nPiece = static_cast<int32>(std::min<int64>(nLen, nBs - nPos));
      int32 nErr = ReadAt(BlockOffset(chain[nIdx], nBs) + nPos, pOut, nPiece);
      if (nErr != 0) return nErr;
      pOut += nPiece;
      nPos += nPiece;
      nLen -= nPiece;
    }
    return 0;
  };
  while (remaining() > 0) {
    if (remaining() < kRecordLenSize) return CACHE_READ_BAD_CHAIN;
    int32 nLen = 0;
    nRet = take(reinterpret_cast<char*>(&nLen), kRecordLenSize);
    if (nRet != 0) return nRet;
    // A length the rest of the queue cannot hold is damage, not a reason to
    // allocate.
    if (nLen < 1 || nLen > remaining()) return CACHE_READ_BAD_CHAIN;
    pBuf->resize(static_cast<size_t>(nLen));
    nRet = take(pBuf->data(), nLen);
    if (nRet != 0) return nRet;
    if (!fnRecord(pBuf->data(), nLen)) return 0;
  }
  return remaining() == 0 ? 0 : CACHE_READ_BAD_CHAIN;
}

std::string cache_ip_text(uint32 nIP) {
  char szText[INET_ADDRSTRLEN] = {0};
  struct in_addr addr;
  addr.s_addr = nIP;
  if (inet_ntop(AF_INET, &addr, szText, sizeof(szText)) == nullptr) return "?";
  return szText;
}
