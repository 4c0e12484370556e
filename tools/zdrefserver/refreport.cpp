#include "refreport.h"

#include <sqlite3.h>

#include <algorithm>
#include <cinttypes>
#include <map>
#include <unordered_set>

#include "zd3_record.h"
#include "zdorlo_api.h"

namespace {

// A read-only handle that closes itself.
class CReadDb {
 public:
  explicit CReadDb(const char* szPath) {
    if (sqlite3_open_v2(szPath, &m_pDb, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
      std::fprintf(stderr, "cannot open %s: %s\n", szPath, m_pDb ? sqlite3_errmsg(m_pDb) : "?");
      sqlite3_close(m_pDb);
      m_pDb = nullptr;
    }
  }
  ~CReadDb() {
    sqlite3_finalize(m_pStmt);
    sqlite3_close(m_pDb);
  }
  CReadDb(const CReadDb&) = delete;
  CReadDb& operator=(const CReadDb&) = delete;

  bool Prepare(const char* szSql) {
    if (m_pDb == nullptr) return false;
    if (sqlite3_prepare_v2(m_pDb, szSql, -1, &m_pStmt, nullptr) == SQLITE_OK) return true;
    std::fprintf(stderr, "query failed: %s\n", sqlite3_errmsg(m_pDb));
    return false;
  }
  sqlite3_stmt* Stmt() { return m_pStmt; }

 private:
  sqlite3* m_pDb = nullptr;
  sqlite3_stmt* m_pStmt = nullptr;
};

struct STagState {
  STagReport report;
  std::unordered_set<int64> seen;
  bool bAny = false;
  int64 nHigh = 0;  // highest first-arrival value so far
};

// Runs of values in [nFirst, nLast] missing from the sorted list v.
void find_gaps(const std::vector<int64>& v, int64 nFirst, int64 nLast, STagReport* pReport) {
  int64 nNext = nFirst;  // smallest value not yet accounted for
  for (int64 x : v) {
    if (pReport->vGaps.size() >= kMaxGaps) return;
    if (x < nNext) continue;
    if (x > nLast) break;
    if (x > nNext) pReport->vGaps.emplace_back(nNext, x - 1);
    nNext = x + 1;
  }
  if (nNext <= nLast && pReport->vGaps.size() < kMaxGaps) {
    pReport->vGaps.emplace_back(nNext, nLast);
  }
}

void finish_tag(STagState& st, const SRefExpect& expect) {
  STagReport& r = st.report;
  std::vector<int64> vSorted(st.seen.begin(), st.seen.end());
  std::sort(vSorted.begin(), vSorted.end());
  if (expect.bRange) {
    find_gaps(vSorted, expect.nFirst, expect.nLast, &r);
  } else if (!vSorted.empty()) {
    find_gaps(vSorted, r.nMin, r.nMax, &r);
  }
  r.nDuplicates = r.nReceived - r.nNotSequence - r.nDistinct;
  if (expect.bRange) {
    uint64 nInRange = 0;
    for (int64 v : st.seen) {
      if (v >= expect.nFirst && v <= expect.nLast) ++nInRange;
    }
    r.nUnexpected = r.nDistinct - nInRange;
    const uint64 nExpected =
        expect.nLast >= expect.nFirst ? static_cast<uint64>(expect.nLast - expect.nFirst) + 1 : 0;
    r.nMissing = nExpected - nInRange;
  } else if (r.nDistinct > 0) {
    r.nMissing = static_cast<uint64>(r.nMax - r.nMin) + 1 - r.nDistinct;
  }
}

void add_to(STagReport* pTotal, const STagReport& r) {
  pTotal->nReceived += r.nReceived;
  pTotal->nDistinct += r.nDistinct;
  pTotal->nDuplicates += r.nDuplicates;
  pTotal->nOutOfOrder += r.nOutOfOrder;
  pTotal->nMissing += r.nMissing;
  pTotal->nUnexpected += r.nUnexpected;
  pTotal->nNotSequence += r.nNotSequence;
}

}  // namespace

int32 refreport_compute(const char* szDb, const SRefExpect& expect, std::vector<STagReport>* pvTags,
                        STagReport* pTotal) {
  CReadDb db(szDb);
  if (!db.Prepare("SELECT tag, type, value FROM records ORDER BY seq")) {
    return ZD3_E_STORAGE_UNAVAILABLE;
  }
  std::map<uint32, STagState> tags;
  for (uint32 t : expect.vTags) tags[t].report.nTag = t;
  sqlite3_stmt* p = db.Stmt();
  int nRc;
  while ((nRc = sqlite3_step(p)) == SQLITE_ROW) {
    const uint32 nTag = static_cast<uint32>(sqlite3_column_int64(p, 0));
    const int nType = sqlite3_column_int(p, 1);
    STagState& st = tags[nTag];
    STagReport& r = st.report;
    r.nTag = nTag;
    ++r.nReceived;
    const bool bInteger = nType == ZD3_TAG_TYPE_INT8 || nType == ZD3_TAG_TYPE_INT16 ||
                          nType == ZD3_TAG_TYPE_INT32 || nType == ZD3_TAG_TYPE_DIGITAL;
    if (!bInteger || sqlite3_column_type(p, 2) != SQLITE_INTEGER) {
      ++r.nNotSequence;
      continue;
    }
    const int64 v = sqlite3_column_int64(p, 2);
    if (!st.seen.insert(v).second) continue;  // duplicate
    ++r.nDistinct;
    if (!st.bAny) {
      st.bAny = true;
      r.nMin = r.nMax = st.nHigh = v;
      continue;
    }
    if (v < st.nHigh) ++r.nOutOfOrder;
    st.nHigh = std::max(st.nHigh, v);
    r.nMin = std::min(r.nMin, v);
    r.nMax = std::max(r.nMax, v);
  }
  if (nRc != SQLITE_DONE) return ZD3_E_STORAGE_UNAVAILABLE;
  *pTotal = STagReport{};
  pvTags->clear();
  for (auto& [nTag, st] : tags) {
    finish_tag(st, expect);
    pvTags->push_back(st.report);
    add_to(pTotal, st.report);
  }
  return 0;
}

void refreport_print(const std::vector<STagReport>& vTags, const STagReport& total, bool bGaps,
                     FILE* pOut) {
  std::fprintf(pOut,
               "tag,received,distinct,duplicates,out_of_order,missing,unexpected,not_sequence,"
               "min,max\n");
  for (const STagReport& r : vTags) {
    std::fprintf(pOut,
                 "%" PRIu32 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64
                 ",%" PRIu64 ",%" PRId64 ",%" PRId64 "\n",
                 r.nTag, r.nReceived, r.nDistinct, r.nDuplicates, r.nOutOfOrder, r.nMissing,
                 r.nUnexpected, r.nNotSequence, r.nMin, r.nMax);
  }
  std::fprintf(pOut,
               "total,%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64
               ",%" PRIu64 ",,\n",
               total.nReceived, total.nDistinct, total.nDuplicates, total.nOutOfOrder,
               total.nMissing, total.nUnexpected, total.nNotSequence);
  for (const STagReport& r : vTags) {
    if (!bGaps || r.vGaps.empty()) continue;
    std::fprintf(pOut, "gaps,%" PRIu32 ",", r.nTag);
    for (const auto& [a, b] : r.vGaps) std::fprintf(pOut, " %" PRId64 "-%" PRId64, a, b);
    std::fputs(r.vGaps.size() >= kMaxGaps ? " ...\n" : "\n", pOut);
  }
}

int32 refreport_dump(const char* szDb, int64 nTag, FILE* pOut) {
  CReadDb db(szDb);
  if (!db.Prepare("SELECT seq, call, tag, sec, msec, quality, type, value FROM records"
                  " WHERE ?1 < 0 OR tag = ?1 ORDER BY seq")) {
    return ZD3_E_STORAGE_UNAVAILABLE;
  }
  sqlite3_stmt* p = db.Stmt();
  sqlite3_bind_int64(p, 1, nTag);
  std::fprintf(pOut, "seq,call,tag,sec,msec,quality,type,value\n");
  int nRc;
  while ((nRc = sqlite3_step(p)) == SQLITE_ROW) {
    for (int c = 0; c < 7; ++c) {
      std::fprintf(pOut, "%lld,", static_cast<long long>(sqlite3_column_int64(p, c)));
    }
    switch (sqlite3_column_type(p, 7)) {
      case SQLITE_INTEGER:
        std::fprintf(pOut, "%lld\n", static_cast<long long>(sqlite3_column_int64(p, 7)));
        break;
      case SQLITE_FLOAT:
        std::fprintf(pOut, "%.17g\n", sqlite3_column_double(p, 7));
        break;
      case SQLITE_TEXT: {
        const unsigned char* s = sqlite3_column_text(p, 7);
        const int n = sqlite3_column_bytes(p, 7);
        std::fputc('"', pOut);
        for (int i = 0; i < n; ++i) {
          if (s[i] == '"') std::fputc('"', pOut);
          std::fputc(s[i], pOut);
        }
        std::fputs("\"\n", pOut);
        break;
      }
      case SQLITE_BLOB: {
        const auto* b = static_cast<const unsigned char*>(sqlite3_column_blob(p, 7));
        const int n = sqlite3_column_bytes(p, 7);
        std::fputs("x", pOut);
        for (int i = 0; i < n; ++i) std::fprintf(pOut, "%02x", b[i]);
        std::fputc('\n', pOut);
        break;
      }
      default:
        std::fputc('\n', pOut);
        break;
    }
  }
  return nRc == SQLITE_DONE ? 0 : ZD3_E_STORAGE_UNAVAILABLE;
}
