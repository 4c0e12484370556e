// Where the reference server puts what it receives: an SQLite database, or
// nothing but counters (for benchmarks).
//
// Table `records`, one row per stored record:
//   seq      INTEGER PRIMARY KEY  order of arrival, 1, 2, ... across restarts
//   call     INTEGER              number of the save request that carried it
//   tag      INTEGER              tag id
//   sec, msec, quality, type      as sent
//   value                         INTEGER for types 0, 1, 2, 5; REAL for 3, 4
//                                 (float32 widened exactly); TEXT for 6; BLOB for 7
#ifndef TOOLS_ZDREFSERVER_REFSTORE_H_
#define TOOLS_ZDREFSERVER_REFSTORE_H_

#include <sqlite3.h>

#include <atomic>
#include <mutex>

#include "zd_types.h"
#include "zdorlo_wire.h"

class CRefStore {
 public:
  CRefStore() = default;
  ~CRefStore() { Close(); }
  CRefStore(const CRefStore&) = delete;
  CRefStore& operator=(const CRefStore&) = delete;

  // Opens (creating if needed) the database at szPath; a null or empty path
  // selects the counting mode. bTruncate deletes rows already there.
  // Returns 0 or ZD3_E_STORAGE_UNAVAILABLE.
  int32 Open(const char* szPath, bool bTruncate);
  // Finalises the statements and closes the database (checkpointing the WAL).
  void Close();

  // Stores n records in one transaction, in order. Thread-safe.
  // Returns 0 or ZD3_E_STORAGE_UNAVAILABLE (nothing stored).
  int32 Save(const zdorlo::SWireRecord* pRecs, size_t n);

  uint64 StoredCount() const { return m_nStored.load(std::memory_order_relaxed); }
  bool IsCounting() const { return m_pDb == nullptr; }

 private:
  int32 Fail(const char* szWhat);

  std::mutex m_mutex;  // one writer at a time on m_pDb
  sqlite3* m_pDb = nullptr;
  sqlite3_stmt* m_pBegin = nullptr;
  sqlite3_stmt* m_pCommit = nullptr;
  sqlite3_stmt* m_pRollback = nullptr;
  sqlite3_stmt* m_pInsert = nullptr;
  int64 m_nCall = 0;
  std::atomic<uint64> m_nStored{0};
};

#endif  // TOOLS_ZDREFSERVER_REFSTORE_H_
