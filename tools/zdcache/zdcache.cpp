#include "zdcache.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "CacheFileCheck.h"
#include "CacheFileFormat.h"
#include "cache_reader.h"
#include "cache_repair.h"
#include "protocol/buffer_proto_record.h"
#include "protocol/proto_base.h"

using namespace cachefile;

namespace {

constexpr int64 kMaxSizeMb = 1048576;  // the largest SizeMb the service accepts
constexpr int64 kSlackBlocks = 64;     // unwritten blocks a derived size allows for

const char kUsage[] =
    "usage:\n"
    "  zdcache info    FILE [--size-mb N]\n"
    "  zdcache servers FILE [--size-mb N]\n"
    "  zdcache check   FILE [--size-mb N] [--repair [--name NAME]]\n"
    "  zdcache dump    FILE [--server K] [--format csv|table] [--limit N]\n"
    "  zdcache export  FILE OUT [--server K]\n"
    "FILE is the cache file (<Path><Prefix>_buffer.buf); --size-mb is SizeMb of\n"
    "ZD3Buffer.xml (default: the file's size in MB rounded up, or the size its\n"
    "block count needs if larger). K is the entry number that 'servers' shows.\n"
    "Exit: 0 ok, 1 damage, 2 leaks/duplicates only, 3 usage, 4 I/O, 5 in use.\n";

struct Options {
  std::string strCommand;
  std::vector<std::string> vecArgs;  // positional
  int64 nSizeMb = 0;                 // 0: derive from the file
  int32 nServer = 0;                 // 0: every entry with records
  bool bCsv = false;
  int64 nLimit = -1;  // -1: no limit
  bool bRepair = false;
  std::string strName;
};

bool ParseInt(const char* sz, int64 nMin, int64 nMax, int64* pn) {
  if (sz == nullptr || *sz == '\0') return false;
  errno = 0;
  char* pEnd = nullptr;
  long long n = strtoll(sz, &pEnd, 10);
  if (errno != 0 || *pEnd != '\0' || n < nMin || n > nMax) return false;
  *pn = n;
  return true;
}

// Returns ZDCACHE_EXIT_OK or ZDCACHE_EXIT_USAGE (message on pErr).
int ParseArgs(int argc, char** argv, Options* pOpt, FILE* pErr) {
  if (argc < 2) {
    fputs(kUsage, pErr);
    return ZDCACHE_EXIT_USAGE;
  }
  pOpt->strCommand = argv[1];
  for (int i = 2; i < argc; ++i) {
    std::string strArg = argv[i];
    const char* szValue = i + 1 < argc ? argv[i + 1] : nullptr;
    int64 n = 0;
    if (strArg == "--size-mb") {
      if (!ParseInt(szValue, 1, kMaxSizeMb, &n)) {
        fprintf(pErr, "zdcache: --size-mb needs a number of MB from 1 to %lld\n",
                static_cast<long long>(kMaxSizeMb));
        return ZDCACHE_EXIT_USAGE;
      }
      pOpt->nSizeMb = n;
      ++i;
    } else if (strArg == "--server") {
      if (!ParseInt(szValue, 1, 1 << 30, &n)) {
        fputs("zdcache: --server needs an entry number from 1 ('zdcache servers' lists them)\n",
              pErr);
        return ZDCACHE_EXIT_USAGE;
      }
      pOpt->nServer = static_cast<int32>(n);
      ++i;
    } else if (strArg == "--limit") {
      if (!ParseInt(szValue, 0, INT64_MAX, &n)) {
        fputs("zdcache: --limit needs a number of values\n", pErr);
        return ZDCACHE_EXIT_USAGE;
      }
      pOpt->nLimit = n;
      ++i;
    } else if (strArg == "--format") {
      if (szValue == nullptr || (strcmp(szValue, "csv") != 0 && strcmp(szValue, "table") != 0)) {
        fputs("zdcache: --format is csv or table\n", pErr);
        return ZDCACHE_EXIT_USAGE;
      }
      pOpt->bCsv = strcmp(szValue, "csv") == 0;
      ++i;
    } else if (strArg == "--repair") {
      pOpt->bRepair = true;
    } else if (strArg == "--name") {
      if (szValue == nullptr || *szValue == '\0') {
        fputs("zdcache: --name needs the service's process name (name= in ZD3Buffer.xml)\n", pErr);
        return ZDCACHE_EXIT_USAGE;
      }
      pOpt->strName = szValue;
      ++i;
    } else if (strArg == "-h" || strArg == "--help") {
      fputs(kUsage, pErr);
      return ZDCACHE_EXIT_USAGE;
    } else if (strArg.size() > 1 && strArg[0] == '-') {
      fprintf(pErr, "zdcache: unknown option %s\n%s", strArg.c_str(), kUsage);
      return ZDCACHE_EXIT_USAGE;
    } else {
      pOpt->vecArgs.push_back(strArg);
    }
  }
  const std::string& c = pOpt->strCommand;
  size_t nWant = c == "export" ? 2 : 1;
  bool bKnown = c == "info" || c == "servers" || c == "check" || c == "dump" || c == "export";
  if (!bKnown || pOpt->vecArgs.size() != nWant) {
    fprintf(pErr, "zdcache: %s\n%s", bKnown ? "wrong number of file arguments" : "unknown command",
            kUsage);
    return ZDCACHE_EXIT_USAGE;
  }
  if ((pOpt->bRepair || !pOpt->strName.empty()) && c != "check") {
    fputs("zdcache: --repair and --name belong to check\n", pErr);
    return ZDCACHE_EXIT_USAGE;
  }
  if (!pOpt->strName.empty() && !pOpt->bRepair) {
    fputs("zdcache: --name is used by --repair only\n", pErr);
    return ZDCACHE_EXIT_USAGE;
  }
  return ZDCACHE_EXIT_OK;
}

// The size to check against: given, or the smallest whole MB the file and its
// header's block count fit in.
int32 EffectiveSizeMb(const Options& opt, const CCacheReader& reader, const CacheHeaderView& h,
                      bool bHeaderOk, bool* pbAssumed) {
  *pbAssumed = opt.nSizeMb == 0;
  if (opt.nSizeMb != 0) return static_cast<int32>(opt.nSizeMb);
  int64 nBytes = reader.FileSize();
  // Blocks handed out but never written (a stop right after the allocation)
  // make the file shorter than its block count says; a few at most. A count
  // far beyond the file is damage for the checker to report, not a size to
  // assume (it would also size the checker's block map).
  if (bHeaderOk) {
    int64 nNeeded = BlockOffset(h.nTotalBlockNum, h.nBlockSize);
    if (nNeeded <= nBytes + kSlackBlocks * static_cast<int64>(h.nBlockSize)) {
      nBytes = std::max(nBytes, nNeeded);
    }
  }
  int64 nMb = (nBytes + kBytesPerMb - 1) / kBytesPerMb;
  return static_cast<int32>(std::min<int64>(std::max<int64>(nMb, 1), kMaxSizeMb));
}

void PrintAssumed(FILE* pOut, bool bAssumed, int32 nSizeMb) {
  if (bAssumed) {
    fprintf(pOut,
            "note: size limit %d MB assumed from the file (pass --size-mb with SizeMb of "
            "ZD3Buffer.xml)\n",
            nSizeMb);
  }
}

// Opens FILE and reads its header; the exit status when that fails.
int OpenFile(const Options& opt, CCacheReader* pReader, CacheHeaderView* pHeader, bool* pbHeaderOk,
             FILE* pErr) {
  const char* szPath = opt.vecArgs[0].c_str();
  int32 nRet = pReader->Open(szPath);
  if (nRet != 0) {
    fprintf(pErr, "zdcache: cannot open %s: %s\n", szPath, strerror(nRet));
    return ZDCACHE_EXIT_IO;
  }
  nRet = pReader->LoadHeader(pHeader);
  if (nRet != 0 && nRet != CACHE_READ_BAD_HEADER) {
    fprintf(pErr, "zdcache: cannot read %s: %s\n", szPath, strerror(nRet));
    return ZDCACHE_EXIT_IO;
  }
  *pbHeaderOk = nRet == 0;
  return ZDCACHE_EXIT_OK;
}

// What the service's start-up header checks would say with this size limit;
// null when they pass.
const char* StartVerdict(const CCacheReader& reader, const CacheHeaderView& h, int32 nSizeMb,
                         int32* pnCode) {
  *pnCode = EC_CACHE_BAD_HEADER;
  if (reader.FileSize() / kBytesPerMb > nSizeMb) {
    *pnCode = EC_CACHE_TOO_LARGE;
    return "cache file size too small";
  }
  if (h.nBlockSize != kBlockSizeSmall && h.nBlockSize != kBlockSizeLarge) {
    return "invalid block size";
  }
  int64 nMaxNo = nSizeMb * kBytesPerMb / h.nBlockSize;
  if (h.nTotalBlockNum < 0 || h.nTotalBlockNum > nMaxNo) return "invalid total block number";
  if (h.nIdleHeadNo < -1) return "invalid idle head number";
  if (h.nSrvInfoHeadNo != 0) return "invalid server info head number";
  if (h.nSrvInfoTailNo < 0 || h.nSrvInfoTailNo > nMaxNo - 1)
    return "invalid server info tail number";
  *pnCode = 0;
  return nullptr;
}

void PrintFindings(const std::vector<CacheCheckFinding>& v, FILE* pOut) {
  for (const CacheCheckFinding& f : v) {
    const char* szKind = f.nKind == CACHE_CHECK_DAMAGE ? "DAMAGE"
                         : f.nKind == CACHE_CHECK_LEAK ? "leak"
                                                       : "duplicate";
    fprintf(pOut, "%-9s %s\n", szKind, f.strText.c_str());
  }
}

int ExitForFindings(const std::vector<CacheCheckFinding>& v) {
  if (cache_check_count(v, CACHE_CHECK_DAMAGE) > 0) return ZDCACHE_EXIT_DAMAGE;
  return v.empty() ? ZDCACHE_EXIT_OK : ZDCACHE_EXIT_HARMLESS;
}

int CmdInfo(const Options& opt, FILE* pOut, FILE* pErr) {
  CCacheReader reader;
  CacheHeaderView h{};
  bool bHeaderOk = false;
  int nExit = OpenFile(opt, &reader, &h, &bHeaderOk, pErr);
  if (nExit != ZDCACHE_EXIT_OK) return nExit;
  bool bAssumed = false;
  int32 nSizeMb = EffectiveSizeMb(opt, reader, h, bHeaderOk, &bAssumed);
  fprintf(pOut, "file:            %s\n", opt.vecArgs[0].c_str());
  fprintf(pOut, "file size:       %lld bytes\n", static_cast<long long>(reader.FileSize()));
  fprintf(pOut, "size limit:      %d MB%s\n", nSizeMb, bAssumed ? " (assumed)" : "");
  fprintf(pOut, "version:         %s\n", h.szVersion);
  fprintf(pOut, "block size:      %d bytes\n", h.nBlockSize);
  fprintf(pOut, "header:          blocks %d, idle head %d, server-info head %d, tail %d\n",
          h.nTotalBlockNum, h.nIdleHeadNo, h.nSrvInfoHeadNo, h.nSrvInfoTailNo);
  int32 nCode = 0;
  const char* szVerdict = StartVerdict(reader, h, nSizeMb, &nCode);
  if (szVerdict != nullptr) {
    fprintf(pOut, "service start:   refused, \"%s\" (%d)\n", szVerdict, nCode);
  } else {
    fprintf(pOut, "service start:   header checks pass\n");
  }
  PrintAssumed(pOut, bAssumed, nSizeMb);
  if (!bHeaderOk) {
    fprintf(pOut, "the header is unusable: nothing more can be read\n");
    return ZDCACHE_EXIT_DAMAGE;
  }

  std::vector<CacheCheckFinding> findings;
  std::vector<CacheQueueStat> stats;
  int32 nRet = cache_file_check(opt.vecArgs[0].c_str(), nSizeMb, &findings, &stats);
  if (nRet != 0) {
    fprintf(pErr, "zdcache: cannot read %s: %s\n", opt.vecArgs[0].c_str(), strerror(nRet));
    return ZDCACHE_EXIT_IO;
  }
  std::vector<CacheEntryView> entries;
  std::vector<int32> sibBlocks;
  int32 nWalk = reader.LoadEntries(&entries, &sibBlocks);
  int64 nData = 0;
  int32 nWithRecords = 0;
  for (const CacheEntryView& e : entries) {
    if (!e.HasRecords() || e.bDuplicate) continue;
    ++nWithRecords;
    nData += e.nBlockNumUsed;
  }
  int64 nIdle = 0;
  std::vector<bool> vecSeen(static_cast<size_t>(h.nTotalBlockNum), false);
  for (int32 n = h.nIdleHeadNo;
       n > 0 && n < h.nTotalBlockNum && !vecSeen[static_cast<size_t>(n)];) {
    vecSeen[static_cast<size_t>(n)] = true;
    ++nIdle;
    if (reader.ReadAt(BlockOffset(n, h.nBlockSize), &n, 4) != 0) break;
  }
  int64 nMaxBlocks = MaxBlockCount(nSizeMb, h.nBlockSize);
  int64 nRecords = 0;
  int64 nBytes = 0;
  for (const CacheQueueStat& s : stats) {
    nRecords += s.nRecords;
    nBytes += s.nBytes;
  }
  fprintf(pOut,
          "blocks:          %d handed out of at most %lld: %zu server-info, %lld data, "
          "%lld idle, %d leaked\n",
          h.nTotalBlockNum, static_cast<long long>(nMaxBlocks), sibBlocks.size(),
          static_cast<long long>(nData), static_cast<long long>(nIdle),
          cache_check_count(findings, CACHE_CHECK_LEAK));
  fprintf(pOut, "entries:         %zu (%d with records)%s\n", entries.size(), nWithRecords,
          nWalk != 0 ? ", server-info chain broken" : "");
  fprintf(pOut, "queued:          %lld records (batches), %lld bytes\n",
          static_cast<long long>(nRecords), static_cast<long long>(nBytes));
  // Room for data: every block the file may hold but the server-info blocks.
  int64 nRoom = nMaxBlocks - static_cast<int64>(sibBlocks.size());
  fprintf(pOut, "fill:            %.1f%% (%lld of %lld data blocks)\n",
          nRoom > 0 ? 100.0 * static_cast<double>(nData) / static_cast<double>(nRoom) : 100.0,
          static_cast<long long>(nData), static_cast<long long>(nRoom));
  fprintf(pOut, "findings:        %d damage, %d leaked blocks, %d duplicate entries%s\n",
          cache_check_count(findings, CACHE_CHECK_DAMAGE),
          cache_check_count(findings, CACHE_CHECK_LEAK),
          cache_check_count(findings, CACHE_CHECK_DUPLICATE),
          findings.empty() ? "" : " (zdcache check lists them)");
  return cache_check_count(findings, CACHE_CHECK_DAMAGE) > 0 ? ZDCACHE_EXIT_DAMAGE
                                                             : ZDCACHE_EXIT_OK;
}

int CmdServers(const Options& opt, FILE* pOut, FILE* pErr) {
  CCacheReader reader;
  CacheHeaderView h{};
  bool bHeaderOk = false;
  int nExit = OpenFile(opt, &reader, &h, &bHeaderOk, pErr);
  if (nExit != ZDCACHE_EXIT_OK) return nExit;
  if (!bHeaderOk) {
    fprintf(pErr, "zdcache: %s: the header is unusable (zdcache info shows it)\n",
            opt.vecArgs[0].c_str());
    return ZDCACHE_EXIT_DAMAGE;
  }
  bool bAssumed = false;
  int32 nSizeMb = EffectiveSizeMb(opt, reader, h, bHeaderOk, &bAssumed);
  std::vector<CacheCheckFinding> findings;
  std::vector<CacheQueueStat> stats;
  int32 nRet = cache_file_check(opt.vecArgs[0].c_str(), nSizeMb, &findings, &stats);
  if (nRet != 0) {
    fprintf(pErr, "zdcache: cannot read %s: %s\n", opt.vecArgs[0].c_str(), strerror(nRet));
    return ZDCACHE_EXIT_IO;
  }
  std::map<std::pair<int32, int32>, const CacheQueueStat*> mapStats;
  for (const CacheQueueStat& s : stats) mapStats[{s.nBlockNo, s.nOrderInBlock}] = &s;
  std::vector<CacheEntryView> entries;
  std::vector<int32> sibBlocks;
  int32 nWalk = reader.LoadEntries(&entries, &sibBlocks);
  fprintf(pOut, "%-4s %-15s %-5s %-10s %7s %10s %14s  %s\n", "#", "address", "port", "where",
          "blocks", "records", "bytes", "user");
  for (const CacheEntryView& e : entries) {
    char szWhere[32];
    snprintf(szWhere, sizeof(szWhere), "%d/%d", e.nBlockNo, e.nSlot);
    std::string strRecords = "0";
    std::string strBytes = "0";
    if (e.bDuplicate) {
      strRecords = strBytes = "duplicate";
    } else if (e.HasRecords()) {
      auto it = mapStats.find({e.nBlockNo, e.nSlot});
      if (it == mapStats.end()) {
        strRecords = strBytes = "damaged";
      } else {
        strRecords = std::to_string(it->second->nRecords);
        strBytes = std::to_string(it->second->nBytes);
      }
    }
    fprintf(pOut, "%-4d %-15s %-5u %-10s %7d %10s %14s  %s\n", e.nIndex,
            e.nIsIPV4 == 1 ? cache_ip_text(e.nIP).c_str() : "(not IPv4)", e.nPort, szWhere,
            e.nBlockNumUsed, strRecords.c_str(), strBytes.c_str(), e.szUser);
  }
  if (entries.empty()) fprintf(pOut, "(no server entries)\n");
  if (nWalk != 0) {
    fprintf(pOut, "the server-info chain is broken after the entries above\n");
    return ZDCACHE_EXIT_DAMAGE;
  }
  return ExitForFindings(findings) == ZDCACHE_EXIT_DAMAGE ? ZDCACHE_EXIT_DAMAGE : ZDCACHE_EXIT_OK;
}

int CmdCheck(const Options& opt, FILE* pOut, FILE* pErr) {
  CCacheReader reader;
  CacheHeaderView h{};
  bool bHeaderOk = false;
  int nExit = OpenFile(opt, &reader, &h, &bHeaderOk, pErr);
  if (nExit != ZDCACHE_EXIT_OK) return nExit;
  bool bAssumed = false;
  int32 nSizeMb = EffectiveSizeMb(opt, reader, h, bHeaderOk, &bAssumed);
  PrintAssumed(pOut, bAssumed, nSizeMb);
  if (opt.bRepair) {
    return cache_repair(opt.vecArgs[0].c_str(), nSizeMb,
                        opt.strName.empty() ? nullptr : opt.strName.c_str(), pOut, pErr);
  }
  std::vector<CacheCheckFinding> findings;
  int32 nRet = cache_file_check(opt.vecArgs[0].c_str(), nSizeMb, &findings, nullptr);
  if (nRet != 0) {
    fprintf(pErr, "zdcache: cannot read %s: %s\n", opt.vecArgs[0].c_str(), strerror(nRet));
    return ZDCACHE_EXIT_IO;
  }
  PrintFindings(findings, pOut);
  fprintf(pOut, "%d damage, %d leaked blocks, %d duplicate entries\n",
          cache_check_count(findings, CACHE_CHECK_DAMAGE),
          cache_check_count(findings, CACHE_CHECK_LEAK),
          cache_check_count(findings, CACHE_CHECK_DUPLICATE));
  int nResult = ExitForFindings(findings);
  if (nResult == ZDCACHE_EXIT_HARMLESS) {
    fprintf(pOut, "harmless: no data is lost; 'zdcache check FILE --repair' reclaims it\n");
  }
  return nResult;
}

// Entries a dump or export covers: the one asked for, or every entry with
// records that is not a duplicate.
int SelectEntries(const Options& opt, CCacheReader* pReader, std::vector<CacheEntryView>* pOut,
                  FILE* pErr) {
  std::vector<CacheEntryView> entries;
  std::vector<int32> sibBlocks;
  int32 nWalk = pReader->LoadEntries(&entries, &sibBlocks);
  pOut->clear();
  if (opt.nServer != 0) {
    if (opt.nServer > static_cast<int32>(entries.size())) {
      fprintf(pErr, "zdcache: no entry %d (the file has %zu; zdcache servers lists them)\n",
              opt.nServer, entries.size());
      return ZDCACHE_EXIT_USAGE;
    }
    pOut->push_back(entries[static_cast<size_t>(opt.nServer - 1)]);
  } else {
    for (const CacheEntryView& e : entries) {
      if (e.HasRecords() && !e.bDuplicate) pOut->push_back(e);
    }
  }
  if (nWalk != 0) {
    fprintf(pErr,
            "zdcache: the server-info chain is broken; only the entries before the break are "
            "read\n");
  }
  return nWalk != 0 ? ZDCACHE_EXIT_DAMAGE : ZDCACHE_EXIT_OK;
}

const char* TypeName(int32 nType) {
  static const char* const kNames[] = {"INT8",    "INT16",   "INT32",  "FLOAT32",
                                       "FLOAT64", "DIGITAL", "STRING", "BLOB"};
  return nType >= 0 && nType <= 7 ? kNames[nType] : "?";
}

std::string TimeText(int32 nSec, int16 nMsec) {
  time_t t = nSec;
  struct tm tmUtc;
  char szTime[32] = "?";
  if (gmtime_r(&t, &tmUtc) != nullptr)
    strftime(szTime, sizeof(szTime), "%Y-%m-%dT%H:%M:%S", &tmUtc);
  char szOut[64];
  if (nMsec >= 0 && nMsec <= 999) {
    snprintf(szOut, sizeof(szOut), "%s.%03dZ", szTime, nMsec);
  } else {
    snprintf(szOut, sizeof(szOut), "%sZ%+dms", szTime, nMsec);
  }
  return szOut;
}

std::string ValueText(const ZD3Record& r, bool bCsv) {
  char sz[64];
  switch (r.nTagType) {
    case ZD3_TAG_TYPE_INT8:
      snprintf(sz, sizeof(sz), "%d", r.value.nInt8);
      return sz;
    case ZD3_TAG_TYPE_INT16:
      snprintf(sz, sizeof(sz), "%d", r.value.nInt16);
      return sz;
    case ZD3_TAG_TYPE_INT32:
      snprintf(sz, sizeof(sz), "%d", r.value.nInt32);
      return sz;
    case ZD3_TAG_TYPE_FLOAT32:
      snprintf(sz, sizeof(sz), "%.9g", static_cast<double>(r.value.fFloat32));
      return sz;
    case ZD3_TAG_TYPE_FLOAT64:
      snprintf(sz, sizeof(sz), "%.17g", r.value.fFloat64);
      return sz;
    case ZD3_TAG_TYPE_DIGITAL:
      snprintf(sz, sizeof(sz), "%d", r.value.nDigital);
      return sz;
    case ZD3_TAG_TYPE_STRING: {
      // Printable bytes as they are, others as \xNN; quoted in CSV.
      std::string s = bCsv ? "\"" : "";
      for (uint16 i = 0; i < r.value.strBlob.nLenBuf; ++i) {
        unsigned char c = static_cast<unsigned char>(r.value.strBlob.pBuf[i]);
        if (c == '"' && bCsv) {
          s += "\"\"";
        } else if (c == '\\' || c < 0x20 || c >= 0x7f) {
          snprintf(sz, sizeof(sz), "\\x%02x", c);
          s += sz;
        } else {
          s += static_cast<char>(c);
        }
      }
      return bCsv ? s + "\"" : s;
    }
    case ZD3_TAG_TYPE_BLOB: {
      std::string s = "0x";
      for (uint16 i = 0; i < r.value.strBlob.nLenBuf; ++i) {
        snprintf(sz, sizeof(sz), "%02x", static_cast<unsigned char>(r.value.strBlob.pBuf[i]));
        s += sz;
      }
      return s;
    }
    default:
      return "?";
  }
}

// Opens the file for the commands that walk queues: a usable header, then
// the entries chosen by --server. *pbGoOn is false when the command cannot
// go on (no file, unusable header, bad --server); otherwise the status is
// the one to end with (damage when the server-info chain is broken and
// only the entries before the break were read).
int OpenEntries(const Options& opt, CCacheReader* pReader, std::vector<CacheEntryView>* pEntries,
                FILE* pErr, bool* pbGoOn) {
  *pbGoOn = false;
  CacheHeaderView h{};
  bool bHeaderOk = false;
  int nExit = OpenFile(opt, pReader, &h, &bHeaderOk, pErr);
  if (nExit != ZDCACHE_EXIT_OK) return nExit;
  if (!bHeaderOk) {
    fprintf(pErr, "zdcache: %s: the header is unusable (zdcache info shows it)\n",
            opt.vecArgs[0].c_str());
    return ZDCACHE_EXIT_DAMAGE;
  }
  nExit = SelectEntries(opt, pReader, pEntries, pErr);
  *pbGoOn = nExit != ZDCACHE_EXIT_USAGE;
  return nExit;
}

int CmdDump(const Options& opt, FILE* pOut, FILE* pErr) {
  CCacheReader reader;
  std::vector<CacheEntryView> entries;
  bool bGoOn = false;
  int nExit = OpenEntries(opt, &reader, &entries, pErr, &bGoOn);
  if (!bGoOn) return nExit;
  if (opt.bCsv) {
    fprintf(pOut, "server,batch,entry,tag,time,quality,type,value\n");
  } else {
    fprintf(pOut, "%-6s %-7s %-6s %-10s %-24s %-7s %-7s %s\n", "server", "batch", "entry", "tag",
            "time (UTC)", "quality", "type", "value");
  }
  std::vector<char> buf;
  char szStrBlob[BUFFER_STRBLOB_MAX_LEN];
  int64 nPrinted = 0;
  bool bLimit = false;
  for (const CacheEntryView& e : entries) {
    int64 nBatch = 0;
    int32 nRet = reader.ForEachRecord(e, &buf, [&](const char* p, int32 nLen) {
      ++nBatch;
      uint16 nCount = 0;
      if (nLen >= BUFFER_BATCH_HEAD_LEN) unpack_value(p, &nCount, 2, false);
      int32 nPos = BUFFER_BATCH_HEAD_LEN;
      for (uint16 i = 0; i < nCount; ++i) {
        if (opt.nLimit >= 0 && nPrinted >= opt.nLimit) {
          bLimit = true;
          return false;
        }
        int32 nStatus = 0;
        uint32 nTag = 0;
        uint16 nBodyLen = 0;
        ZD3Record rec{};
        rec.value.strBlob.pBuf = szStrBlob;
        if (nLen - nPos < BUFFER_ENTRY_HEAD_LEN) {
          nStatus = EC_MSG_TOO_SHORT;
        } else {
          unpack_value(p + nPos, &nTag, 4, false);
          unpack_value(p + nPos + 4, &nBodyLen, 2, false);
          nPos += BUFFER_ENTRY_HEAD_LEN;
          if (nLen - nPos < nBodyLen) {
            nStatus = EC_MSG_TOO_SHORT;
          } else {
            nStatus = buffer_proto_parse_buffer_to_zdrecord(&rec, p + nPos, nBodyLen);
            nPos += nBodyLen;
          }
        }
        if (nStatus != 0) {
          // The service drops such a batch whole when it delivers it.
          fprintf(pErr, "zdcache: server %d batch %lld: entry %u cannot be decoded (%d)\n",
                  e.nIndex, static_cast<long long>(nBatch), i + 1u, nStatus);
          return true;
        }
        ++nPrinted;
        std::string strTime = TimeText(rec.nSec, rec.nMsec);
        std::string strValue = ValueText(rec, opt.bCsv);
        const char* szFormat = opt.bCsv ? "%d,%lld,%u,%u,%s,%u,%s,%s\n"
                                        : "%-6d %-7lld %-6u %-10u %-24s %-7u %-7s %s\n";
        fprintf(pOut, szFormat, e.nIndex, static_cast<long long>(nBatch), i + 1u, nTag,
                strTime.c_str(), rec.nQuality, TypeName(rec.nTagType), strValue.c_str());
      }
      return true;
    });
    if (nRet != 0) {
      fprintf(pErr, "zdcache: server %d: queue unreadable after batch %lld (%d)\n", e.nIndex,
              static_cast<long long>(nBatch), nRet);
      nExit = ZDCACHE_EXIT_DAMAGE;
    }
    if (bLimit) break;
  }
  if (bLimit)
    fprintf(pErr, "zdcache: stopped at the limit of %lld values\n",
            static_cast<long long>(opt.nLimit));
  if (ferror(pOut)) return ZDCACHE_EXIT_IO;
  return nExit;
}

int CmdExport(const Options& opt, FILE* pOut, FILE* pErr) {
  CCacheReader reader;
  std::vector<CacheEntryView> entries;
  bool bGoOn = false;
  int nExit = OpenEntries(opt, &reader, &entries, pErr, &bGoOn);
  if (!bGoOn) return nExit;
  // Never overwrite: OUT might be the cache file itself or an earlier export.
  const char* szOut = opt.vecArgs[1].c_str();
  int nFd = open(szOut, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (nFd < 0) {
    fprintf(pErr, "zdcache: cannot create %s: %s\n", szOut, strerror(errno));
    return ZDCACHE_EXIT_IO;
  }
  FILE* pFile = fdopen(nFd, "wb");
  if (pFile == nullptr) {
    close(nFd);
    return ZDCACHE_EXIT_IO;
  }
  std::vector<char> buf;
  int64 nFrames = 0;
  for (const CacheEntryView& e : entries) {
    int64 nFirst = nFrames;
    int64 nBytes = 0;
    int32 nRet = reader.ForEachRecord(e, &buf, [&](const char* p, int32 nLen) {
      // Frame: uint32 little-endian length, then the batch bytes.
      char lenBytes[4];
      uint32 nLen32 = static_cast<uint32>(nLen);
      pack_value(&nLen32, 4, lenBytes, false);
      fwrite(lenBytes, 1, 4, pFile);
      fwrite(p, 1, static_cast<size_t>(nLen), pFile);
      ++nFrames;
      nBytes += nLen;
      return !ferror(pFile);
    });
    fprintf(pOut, "server %d %s:%u: %lld batches, %lld bytes (frames %lld..%lld)\n", e.nIndex,
            cache_ip_text(e.nIP).c_str(), e.nPort, static_cast<long long>(nFrames - nFirst),
            static_cast<long long>(nBytes), static_cast<long long>(nFirst + 1),
            static_cast<long long>(nFrames));
    if (nRet != 0) {
      fprintf(pErr, "zdcache: server %d: queue unreadable after %lld batches (%d)\n", e.nIndex,
              static_cast<long long>(nFrames - nFirst), nRet);
      nExit = ZDCACHE_EXIT_DAMAGE;
    }
  }
  bool bWriteFailed = fflush(pFile) != 0 || ferror(pFile) || fsync(fileno(pFile)) != 0;
  if (fclose(pFile) != 0) bWriteFailed = true;
  if (bWriteFailed) {
    fprintf(pErr, "zdcache: writing %s failed\n", szOut);
    return ZDCACHE_EXIT_IO;
  }
  fprintf(pOut, "%lld batches written to %s\n", static_cast<long long>(nFrames), szOut);
  return nExit;
}

}  // namespace

int zdcache_main(int argc, char** argv, FILE* pOut, FILE* pErr) {
  Options opt;
  int nExit = ParseArgs(argc, argv, &opt, pErr);
  if (nExit != ZDCACHE_EXIT_OK) return nExit;
  if (opt.strCommand == "info") nExit = CmdInfo(opt, pOut, pErr);
  if (opt.strCommand == "servers") nExit = CmdServers(opt, pOut, pErr);
  if (opt.strCommand == "check") nExit = CmdCheck(opt, pOut, pErr);
  if (opt.strCommand == "dump") nExit = CmdDump(opt, pOut, pErr);
  if (opt.strCommand == "export") nExit = CmdExport(opt, pOut, pErr);
  fflush(pOut);
  return nExit;
}
