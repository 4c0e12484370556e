// Consistency checker of the cache file, for tests and for the operator tool.
//
// Walks a file read-only: the header, the server-info chain and its counts,
// every entry's chain against its block count, every record stream from the
// read to the write position, and the idle list; then accounts for every
// block below the file's block count: each must be exactly one of a
// server-info block, a block of one chain, or an idle block. A block that is
// none of these is a leak (what a stop between two writes may leave: wasted
// room, no data lost); everything else is damage.
#ifndef COLLECTOR_BUFFER_CACHEFILECHECK_H_
#define COLLECTOR_BUFFER_CACHEFILECHECK_H_

#include <string>
#include <vector>

#include "CacheFile.h"
#include "zd_types.h"

enum CacheCheckKind : int32 {
  CACHE_CHECK_DAMAGE = 1,    // the file breaks an invariant; data may be lost or misread
  CACHE_CHECK_LEAK = 2,      // a block in no chain and on no list
  CACHE_CHECK_DUPLICATE = 3  // an entry stored twice by an interrupted start-up move;
                             // the next start drops the second copy
};

struct CacheCheckFinding {
  int32 nKind;  // CacheCheckKind
  std::string strText;
};

// Records queued in one entry.
struct CacheQueueStat {
  uint32 nIP;
  uint16 nPort;
  int32 nBlockNo;       // server-info block of the entry
  int32 nOrderInBlock;  // slot, from 1
  int32 nBlockNumUsed;
  int64 nRecords;
  int64 nBytes;  // payload bytes, without the length fields
};

// Overrides of what is read from the file, to check the state a live
// CCacheFile holds in memory against the blocks on disk.
struct CacheCheckState {
  bool bHeader = false;  // use the five header fields below
  int32 nBlockSize = 0;
  int32 nTotalBlockNum = 0;
  int32 nIdleHeadNo = -1;
  int32 nSrvInfoHeadNo = 0;
  int32 nSrvInfoTailNo = 0;
  bool bEntries = false;  // use these entries instead of those in the file
  std::vector<SrvInfo> vecEntries;
};

// Checks the file at szPath for a configured maximum of nMaxFileSizeMb MB.
// Returns 0 when the walk ran (the findings tell the result), or the status
// of an open or read that failed. pStats may be null.
// Positioned read of nLen bytes with plain pread(2), looping over EINTR and
// short counts; bytes past the end of the file read as zeros, as blocks
// handed out but never written do. Not the platform layer's counted read:
// readers of a closed file (the checker, the inspector) must see the file as
// it is even while a test's fault plan is armed. *pnDone (may be null): bytes
// read from the file.
int32 cache_file_pread(int32 nFd, int64 nOffset, void* pBuf, int32 nLen, int32* pnDone);

int32 cache_file_check(const char* szPath, int32 nMaxFileSizeMb,
                       std::vector<CacheCheckFinding>* pFindings,
                       std::vector<CacheQueueStat>* pStats);
int32 cache_file_check_state(const char* szPath, int32 nMaxFileSizeMb,
                             const CacheCheckState* pState,
                             std::vector<CacheCheckFinding>* pFindings,
                             std::vector<CacheQueueStat>* pStats);

// Number of findings of that kind.
int32 cache_check_count(const std::vector<CacheCheckFinding>& vecFindings, int32 nKind);

#endif  // COLLECTOR_BUFFER_CACHEFILECHECK_H_
