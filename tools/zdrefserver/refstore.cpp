#include "refstore.h"

#include <spdlog/spdlog.h>

#include "zdorlo_api.h"

namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS records("
    " seq INTEGER PRIMARY KEY, call INTEGER NOT NULL, tag INTEGER NOT NULL,"
    " sec INTEGER NOT NULL, msec INTEGER NOT NULL, quality INTEGER NOT NULL,"
    " type INTEGER NOT NULL, value)";

}  // namespace

int32 CRefStore::Fail(const char* szWhat) {
  spdlog::error("sqlite {}: {}", szWhat, m_pDb ? sqlite3_errmsg(m_pDb) : "no database");
  return ZD3_E_STORAGE_UNAVAILABLE;
}

int32 CRefStore::Open(const char* szPath, bool bTruncate) {
  Close();
  if (szPath == nullptr || szPath[0] == '\0') return 0;  // counting mode
  if (sqlite3_open_v2(szPath, &m_pDb,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      nullptr) != SQLITE_OK) {
    const int32 nRet = Fail("open");
    Close();
    return nRet;
  }
  sqlite3_busy_timeout(m_pDb, 5000);
  // WAL with synchronous=NORMAL: a commit is durable against a crash of this
  // process (the demo kills it), not against a power cut; fsync happens at
  // checkpoints only.
  int nRc = sqlite3_exec(m_pDb, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr,
                         nullptr, nullptr);
  if (nRc == SQLITE_OK) nRc = sqlite3_exec(m_pDb, kSchema, nullptr, nullptr, nullptr);
  if (nRc == SQLITE_OK && bTruncate) {
    nRc = sqlite3_exec(m_pDb, "DELETE FROM records", nullptr, nullptr, nullptr);
  }
  if (nRc == SQLITE_OK) nRc = sqlite3_prepare_v2(m_pDb, "BEGIN", -1, &m_pBegin, nullptr);
  if (nRc == SQLITE_OK) nRc = sqlite3_prepare_v2(m_pDb, "COMMIT", -1, &m_pCommit, nullptr);
  if (nRc == SQLITE_OK) nRc = sqlite3_prepare_v2(m_pDb, "ROLLBACK", -1, &m_pRollback, nullptr);
  if (nRc == SQLITE_OK) {
    nRc = sqlite3_prepare_v2(m_pDb,
                             "INSERT INTO records(call,tag,sec,msec,quality,type,value)"
                             " VALUES(?,?,?,?,?,?,?)",
                             -1, &m_pInsert, nullptr);
  }
  sqlite3_stmt* pMax = nullptr;
  if (nRc == SQLITE_OK) {
    nRc = sqlite3_prepare_v2(m_pDb, "SELECT coalesce(max(call),0), count(*) FROM records", -1,
                             &pMax, nullptr);
  }
  if (nRc == SQLITE_OK && sqlite3_step(pMax) == SQLITE_ROW) {
    m_nCall = sqlite3_column_int64(pMax, 0);
    m_nStored = static_cast<uint64>(sqlite3_column_int64(pMax, 1));
  }
  sqlite3_finalize(pMax);
  if (nRc != SQLITE_OK) {
    const int32 nRet = Fail("prepare");
    Close();
    return nRet;
  }
  return 0;
}

void CRefStore::Close() {
  std::lock_guard<std::mutex> lock(m_mutex);
  for (sqlite3_stmt** pp : {&m_pBegin, &m_pCommit, &m_pRollback, &m_pInsert}) {
    sqlite3_finalize(*pp);
    *pp = nullptr;
  }
  if (m_pDb != nullptr) {
    if (sqlite3_close(m_pDb) != SQLITE_OK) spdlog::error("sqlite close: {}", sqlite3_errmsg(m_pDb));
    m_pDb = nullptr;
  }
}

int32 CRefStore::Save(const zdorlo::SWireRecord* pRecs, size_t n) {
  if (m_pDb == nullptr) {
    m_nStored.fetch_add(n, std::memory_order_relaxed);
    return 0;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  if (sqlite3_step(m_pBegin) != SQLITE_DONE) {
    sqlite3_reset(m_pBegin);
    return Fail("begin");
  }
  sqlite3_reset(m_pBegin);
  const int64 nCall = ++m_nCall;
  int nRc = SQLITE_DONE;
  for (size_t i = 0; i < n && nRc == SQLITE_DONE; ++i) {
    const zdorlo::SWireRecord& r = pRecs[i];
    sqlite3_bind_int64(m_pInsert, 1, nCall);
    sqlite3_bind_int64(m_pInsert, 2, r.nTag);
    sqlite3_bind_int64(m_pInsert, 3, r.nSec);
    sqlite3_bind_int64(m_pInsert, 4, r.nMsec);
    sqlite3_bind_int64(m_pInsert, 5, r.nQuality);
    sqlite3_bind_int64(m_pInsert, 6, r.nType);
    switch (r.nType) {
      case ZD3_TAG_TYPE_FLOAT32:
      case ZD3_TAG_TYPE_FLOAT64:
        sqlite3_bind_double(m_pInsert, 7, r.fReal);
        break;
      case ZD3_TAG_TYPE_STRING:
        sqlite3_bind_text(m_pInsert, 7,
                          reinterpret_cast<const char*>(r.pData ? r.pData : (const uint8*)""),
                          r.nLen, SQLITE_STATIC);
        break;
      case ZD3_TAG_TYPE_BLOB:
        sqlite3_bind_blob(m_pInsert, 7, r.pData ? r.pData : (const uint8*)"", r.nLen,
                          SQLITE_STATIC);
        break;
      default:
        sqlite3_bind_int64(m_pInsert, 7, r.nInt);
        break;
    }
    nRc = sqlite3_step(m_pInsert);
    sqlite3_reset(m_pInsert);
  }
  if (nRc == SQLITE_DONE) {
    nRc = sqlite3_step(m_pCommit);
    sqlite3_reset(m_pCommit);
    if (nRc == SQLITE_DONE) {
      m_nStored.fetch_add(n, std::memory_order_relaxed);
      return 0;
    }
  }
  const int32 nRet = Fail("insert");
  sqlite3_step(m_pRollback);
  sqlite3_reset(m_pRollback);
  --m_nCall;
  return nRet;
}
