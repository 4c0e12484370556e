// CCacheFile: the disk cache of records that could not be delivered, one file
// of fixed-size blocks (layout in CacheFileFormat.h and
// docs/cache-file-format.md). It is the only state of the service that
// survives a restart.
//
// Crash safety. Every change is written when it is made, never flushed. The
// write of a server entry (231 bytes) is the commit point of every queue
// operation, and the writes around it are ordered so that a process killed
// between any two writes leaves a file in which no block is both in a chain
// and on the idle list and no committed record is lost; at worst some blocks
// belong to nothing (leaked), which the checker (CacheFileCheck.h) reports.
//
// Thread safety: after Init, the entry and record operations may be called
// from several threads. Lock order: FileBaseInfo::mutexSrv, then an entry's
// mutexSrv, then mutexAlockBlock, then (preemption) the victim's mutexSrv,
// then mutexDisk (innermost). All mutexes are recursive. The victim's mutex
// is the one lock taken against the order (its owner may be waiting for
// mutexAlockBlock): it is only tried, for up to 20 ms, and a victim that
// stays busy is passed over for the next fullest entry.
//
// Ownership: the cache file owns every SrvInfo; a SrvHandle stays valid until
// Release. Release must not run while another thread uses the object.
#ifndef COLLECTOR_BUFFER_CACHEFILE_H_
#define COLLECTOR_BUFFER_CACHEFILE_H_

#include <list>
#include <vector>

#include "logc.h"
#include "zd_types.h"
#include "zdos.h"

// One server entry. The persisted fields are mirrored in the file (231 bytes,
// CacheFileFormat.h); nBlockNo / nOrderInBlock locate that copy.
struct SrvInfo {
  int32 nBlockNumUsed;  // data blocks in the chain; 0 when empty
  int32 nHeadNo;        // first data block, -1 when empty
  int32 nTailNo;        // last data block, -1 when empty
  int32 nReadOffset;    // length field of the oldest record, inside nHeadNo
  int32 nWriteOffset;   // where the next record begins, inside nTailNo
  int32 nBlockNo;       // server-info block holding the entry (not persisted)
  int32 nOrderInBlock;  // slot in that block, from 1 (not persisted)
  uint8 nIsIPV4;        // 1 for IPv4
  uint32 nIP;           // address as os_network_ip2int produced it
  uint16 nPort;
  bool bNormal;          // unused
  MutexHandle mutexSrv;  // serialises every operation on this entry
  char szUser[64];
  char szPassWord[128];  // plain text, in memory and in the file
};

typedef SrvInfo* SrvHandle;

// Decodes a server entry as a server-info block stores it (231 bytes): the
// persisted fields only; nBlockNo, nOrderInBlock and the mutex are left as
// they were.
void DecodeSrvEntry(const char* pEntry, SrvInfo* pSrv);

// The file header in memory, with the file-wide mutexes.
struct FileBaseInfo {
  int32 nBlockSize;
  int32 nTotalBlockNum;  // blocks 0 .. nTotalBlockNum - 1 exist
  int32 nIdleHeadNo;     // top of the idle stack, -1 when empty
  int32 nSrvInfoHeadNo;  // always 0
  int32 nSrvInfoTailNo;
  MutexHandle mutexSrv;         // server list and server-info chain
  MutexHandle mutexAlockBlock;  // idle list, growth mark, every header field
  MutexHandle mutexDisk;        // single file accesses; innermost
  char szVersion[64];
};

struct CacheFileTestAccess;  // tests inspect the in-memory state through it

class CCacheFile {
 public:
  CCacheFile();
  ~CCacheFile();
  CCacheFile(const CCacheFile&) = delete;
  CCacheFile& operator=(const CCacheFile&) = delete;

  // Opens szFileName, or creates it when it does not exist, for a maximum
  // size of nMaxFileSize MB. On success *pListSrvInfo holds the entries found
  // (owned by the cache file). A failure leaves the object closed.
  [[nodiscard]] int32 Init(const char* szVersion, const char* szFileName, int32 nMaxFileSize,
                           std::list<SrvInfo*>* pListSrvInfo);
  // Closes the file and frees every entry; writes nothing. Always 0.
  int32 Release();

  // True when the entry holds records. No lock: a hint only.
  bool HasRecord(SrvHandle hSrv);
  // The entry to use (the first one), created when there is none.
  [[nodiscard]] int32 SaveSrvInfo(uint32 nIP, uint16 nPort, SrvHandle* pHSrvInfo);
  [[nodiscard]] int32 SetUserPassWord(SrvHandle hSrvInfo, const char* szUser,
                                      const char* szPassWord);

  // Appends nBufLen bytes as one record. May drop the oldest records of the
  // fullest entry when the file is full.
  [[nodiscard]] int32 SaveRecord(SrvHandle hSrvInfo, void* pRecordsBuf, int32 nBufLen);
  // Copies the oldest record; *pLen: in capacity, out record length (also on
  // EC_CACHE_BUF_SMALL).
  [[nodiscard]] int32 ReadCurRecord(SrvHandle hSrvInfo, void* pRecordsBuf, int32* pLen);
  // Removes the oldest record. The caller must not let another caller remove
  // between its read and this call.
  [[nodiscard]] int32 DelCurRecord(SrvHandle hSrvInfo);

  // Empties the entry's queue without reading its records: the way past a
  // record whose stored length or links are damaged, which DelCurRecord
  // cannot step over. *pnBlocks receives the blocks given back.
  [[nodiscard]] int32 DropAllRecords(SrvHandle hSrvInfo, int32* pnBlocks);
  // Data blocks held by all entries, and the most blocks the file may hold.
  void GetFill(int32* pnDataBlocks, int32* pnMaxBlocks);

 private:
  friend struct CacheFileTestAccess;

  int32 LoadFileBaseInfo();
  int32 SaveFileBaseInfoToDisk();
  int32 LoadSrvsInfo();
  int32 SaveSrvInfoToDisk(SrvInfo* pSrvInfo);
  int32 AllocIdleBlock(int32* pBlockNo);
  int32 FreeIdleBlock(int32 nBlockNo);
  int32 PreemptDataBlock(int32* pBlockNo);
  int32 PreemptDataBlockFromSrv(SrvInfo* pSrvInfo, int32* pBlockNo);

  // Helpers.
  int32 ReadAt(int64 nOffset, void* pBuf, int32 nLen);
  int32 WriteAt(int64 nOffset, const void* pBuf, int32 nLen);
  int32 ReadSrvInfoBlock(int32 nBlockNo, char* pBlock);
  int32 WriteSrvInfoBlock(int32 nBlockNo, const char* pBlock);
  int32 AllocIdleBlocks(int32 nCount, int32* pBlockNos, int32* pnGot);
  int32 FreeIdleBlocks(const int32* pBlockNos, int32 nCount);
  int32 WalkSrvInfoChain(std::vector<int32>* pChain);
  int32 LockVictim(SrvInfo* pSrvInfo);
  int32 CommitEntry(SrvInfo* pSrvInfo, const SrvInfo& oldState, const char* szMsg,
                    bool* pbOldOnDisk);
  bool IsDataBlockNo(int32 nBlockNo) const;
  // A non-empty entry's stored chain ends and positions lie where the record
  // operations can use them (block numbers handed out, positions 4 to the
  // block size, a count of at least one block).
  bool IsQueueInRange(const SrvInfo& srv) const;

  HANDLE m_hFile;
  int32 m_nMaxFileSize;  // MB
  FileBaseInfo m_fileBlockInfo;
  std::list<SrvInfo*> m_listSrvInfo;
  LOGC_CATEGORY m_cat;

  int64 m_nMaxBlocks;  // blocks the file may ever hold
  uint64 m_nEpoch;     // changes with every Init; keys the per-thread read cursor
};

#endif  // COLLECTOR_BUFFER_CACHEFILE_H_
