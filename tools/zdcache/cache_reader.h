// Read-only access to a cache file for the operator tool: the header, the
// server entries in chain order and the record stream of one entry. The
// layout is the one CCacheFile writes (CacheFileFormat.h); nothing here opens
// the file for writing.
//
// Every walk is bounded: links are range-checked against the header's block
// count and a block seen twice ends the walk, so a damaged file yields a
// status, never a loop or a read outside the file's blocks.
#ifndef TOOLS_ZDCACHE_CACHE_READER_H_
#define TOOLS_ZDCACHE_CACHE_READER_H_

#include <functional>
#include <string>
#include <vector>

#include "zd_types.h"

// The 128-byte header as stored.
struct CacheHeaderView {
  int32 nBlockSize;
  int32 nTotalBlockNum;
  int32 nIdleHeadNo;
  int32 nSrvInfoHeadNo;
  int32 nSrvInfoTailNo;
  uint16 nVersionLen;
  char szVersion[64];  // zero-terminated, at most 63 characters
};

// One server entry as stored; the password is never copied out of the file.
struct CacheEntryView {
  int32 nIndex;  // position in chain order, from 1: the number operators use
  int32 nBlockNo;
  int32 nSlot;  // from 1
  uint8 nIsIPV4;
  uint32 nIP;  // network order, as the service stored it
  uint16 nPort;
  int32 nBlockNumUsed;
  int32 nHeadNo;
  int32 nTailNo;
  int32 nReadOffset;
  int32 nWriteOffset;
  char szUser[64];  // zero-terminated
  bool bDuplicate;  // non-empty and byte-identical to an earlier entry
  bool HasRecords() const { return nHeadNo != -1 && nTailNo != -1; }
};

// Walk statuses of the reader (besides errno values of a failed read).
enum {
  CACHE_READ_BAD_HEADER = 113211,  // block size invalid or block count out of range
  CACHE_READ_BAD_CHAIN = 113215    // a link, count or length leads outside the entry's blocks
};

class CCacheReader {
 public:
  CCacheReader() = default;
  ~CCacheReader();
  CCacheReader(const CCacheReader&) = delete;
  CCacheReader& operator=(const CCacheReader&) = delete;

  // Opens szPath read-only (O_RDONLY | O_CLOEXEC). errno on failure.
  [[nodiscard]] int32 Open(const char* szPath);
  int64 FileSize() const { return m_nFileSize; }

  // Reads the header. CACHE_READ_BAD_HEADER when the file is shorter than a
  // header, the block size is neither 4 KiB nor 4 MiB or the block count is
  // below 1; the raw fields are in *pHeader all the same.
  [[nodiscard]] int32 LoadHeader(CacheHeaderView* pHeader);

  // Entries of the server-info chain in order, and the chain's blocks.
  // CACHE_READ_BAD_CHAIN when the chain leaves the block range, repeats a
  // block or a count is out of range (the entries before that are kept).
  [[nodiscard]] int32 LoadEntries(std::vector<CacheEntryView>* pEntries,
                                  std::vector<int32>* pSrvInfoBlocks);

  // Data blocks of an entry's chain, head first.
  [[nodiscard]] int32 LoadChain(const CacheEntryView& entry, std::vector<int32>* pBlocks);

  // Calls fnRecord(bytes, length) for each record of the entry, oldest first,
  // until it returns false. pBuf is reused for every record.
  [[nodiscard]] int32 ForEachRecord(const CacheEntryView& entry, std::vector<char>* pBuf,
                                    const std::function<bool(const char*, int32)>& fnRecord);

  // Positioned read; bytes past the end of the file read as zeros, as blocks
  // handed out but never written do.
  [[nodiscard]] int32 ReadAt(int64 nOffset, void* pBuf, int32 nLen);

 private:
  int m_nFd = -1;
  int64 m_nFileSize = 0;
  CacheHeaderView m_header{};
  bool m_bHeader = false;
};

// Dotted text of an address stored by the service.
std::string cache_ip_text(uint32 nIP);

#endif  // TOOLS_ZDCACHE_CACHE_READER_H_
