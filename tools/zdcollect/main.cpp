// zdcollect: a command-line collector for people and tests. It attaches to
// a running buffer service, announces a database server, optionally logs in,
// and sends synthetic or CSV records as batches; see Usage() and
// docs/zdcollect.md.
#include <getopt.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "collect_session.h"
#include "protocol/buffer_collector.h"
#include "record_source.h"

namespace {

// Exit statuses.
constexpr int kExitOk = 0;           // every record was sent
constexpr int kExitFailed = 1;       // something was not sent, or the service refused us
constexpr int kExitUsage = 2;        // bad command line
constexpr int kExitInterrupted = 3;  // stopped by a signal before the asked amount was sent

std::atomic<bool> g_bStop{false};

void on_signal(int) { g_bStop.store(true); }

int64 mono_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void Usage(FILE* pOut) {
  fputs(
      "Usage: zdcollect [options]\n"
      "Attaches to a running zdBuffer, announces a server and sends records.\n"
      "\n"
      "Service and server:\n"
      "  -i, --instance NAME     the service's instance (`name` in ZD3Buffer.xml; default "
      "zdBuffer)\n"
      "  -s, --server IP:PORT    database server to announce (default 127.0.0.1:6320)\n"
      "  -b, --backup IP:PORT    backup server\n"
      "  -u, --user NAME         log in with NAME after every announcement ...\n"
      "  -p, --password PW       ... and this password\n"
      "      --init-timeout MS   wait for the init reply (default 5000)\n"
      "      --attach-wait SEC   wait for the service to appear (default 10)\n"
      "      --reattach-wait SEC wait for a restarted service (default 60)\n"
      "\n"
      "Synthetic records (tag t carries the values S, S+1, S+2, ...):\n"
      "  -t, --tags N            number of tags (default 10)\n"
      "      --first-tag T       first tag id (default 1)\n"
      "      --first-seq S       first value of every tag (default 1)\n"
      "  -m, --records M         records per tag, then stop\n"
      "  -d, --duration SEC      stop after SEC seconds (without -m or -d: until Ctrl-C)\n"
      "  -r, --rate R            records per second in all; 0 = as fast as possible (default "
      "1000)\n"
      "      --types LIST        value types, cycled over the tags: int8,int16,int32,float32,\n"
      "                          float64,digital,string,blob (default int32)\n"
      "CSV records:\n"
      "      --csv FILE          lines tag,sec,msec,quality,type,value ('-': standard input)\n"
      "\n"
      "Batches and output:\n"
      "  -n, --batch N           records per batch (default 100)\n"
      "      --flush-ms MS       send a partial batch after MS ms (default 50)\n"
      "      --tally FILE        write tag,sent,last per tag at the end\n"
      "      --wait-drained SEC  at the end, wait until the service took every message\n"
      "  -q, --quiet             no progress line\n"
      "\n"
      "Single control messages (test aids):\n"
      "      --announce-only     announce, print QUEUE <data queue id>, exit\n"
      "      --login-only        send the login message alone (needs -u/-p)\n"
      "      --raw-command N     send a 42-byte control message with command N\n"
      "      --raw-init-len L    send an init message cut or zero-padded to L bytes (1..256)\n"
      "\n"
      "Exit status: 0 every record sent, 1 failure, 2 bad arguments, 3 interrupted.\n",
      pOut);
}

enum class EMode { kStream, kAnnounce, kLoginOnly, kRawCommand, kRawInit };

struct SOptions {
  SCollectTarget target;
  EMode eMode = EMode::kStream;
  uint32 nTags = 10;
  uint32 nFirstTag = 1;
  uint32 nFirstSeq = 1;
  uint64 nRecordsPerTag = 0;  // 0: no limit
  double fDurationSec = 0;    // 0: no limit
  double fRate = 1000;        // records per second; 0: as fast as possible
  std::vector<int32> types;
  const char* szCsv = nullptr;
  int32 nBatch = 100;
  int32 nFlushMs = 50;
  const char* szTally = nullptr;
  double fWaitDrainedSec = 0;
  bool bQuiet = false;
  int32 nRawCommand = 0;
  int32 nRawInitLen = 0;
};

bool parse_num(const char* sz, double fMin, double fMax, double* pOut) {
  char* pEnd = nullptr;
  double f = strtod(sz, &pEnd);
  if (*sz == '\0' || *pEnd != '\0' || !(f >= fMin && f <= fMax)) return false;
  *pOut = f;
  return true;
}

bool parse_endpoint(const char* sz, char* szIP, uint16* pnPort) {
  const char* pColon = strrchr(sz, ':');
  if (pColon == nullptr || pColon - sz == 0 || pColon - sz > 15) return false;
  double fPort = 0;
  if (!parse_num(pColon + 1, 1, 65535, &fPort) || fPort != static_cast<int>(fPort)) return false;
  memcpy(szIP, sz, static_cast<size_t>(pColon - sz));
  szIP[pColon - sz] = '\0';
  *pnPort = static_cast<uint16>(fPort);
  return true;
}

bool copy_text(const char* sz, char* pOut, size_t nCap) {
  if (strlen(sz) >= nCap) return false;
  memcpy(pOut, sz, strlen(sz) + 1);
  return true;
}

// Returns -1 to go on, else the exit status.
int ParseArgs(int argc, char** argv, SOptions* pOpt) {
  enum {
    kInitTimeout = 1000,
    kAttachWait,
    kReattachWait,
    kFirstTag,
    kFirstSeq,
    kTypes,
    kCsv,
    kFlushMs,
    kTally,
    kWaitDrained,
    kAnnounce,
    kLoginOnly,
    kRawCommand,
    kRawInitLen,
    kHelp
  };
  static const struct option longopts[] = {
      {"instance", required_argument, nullptr, 'i'},
      {"server", required_argument, nullptr, 's'},
      {"backup", required_argument, nullptr, 'b'},
      {"user", required_argument, nullptr, 'u'},
      {"password", required_argument, nullptr, 'p'},
      {"init-timeout", required_argument, nullptr, kInitTimeout},
      {"attach-wait", required_argument, nullptr, kAttachWait},
      {"reattach-wait", required_argument, nullptr, kReattachWait},
      {"tags", required_argument, nullptr, 't'},
      {"first-tag", required_argument, nullptr, kFirstTag},
      {"first-seq", required_argument, nullptr, kFirstSeq},
      {"records", required_argument, nullptr, 'm'},
      {"duration", required_argument, nullptr, 'd'},
      {"rate", required_argument, nullptr, 'r'},
      {"types", required_argument, nullptr, kTypes},
      {"csv", required_argument, nullptr, kCsv},
      {"batch", required_argument, nullptr, 'n'},
      {"flush-ms", required_argument, nullptr, kFlushMs},
      {"tally", required_argument, nullptr, kTally},
      {"wait-drained", required_argument, nullptr, kWaitDrained},
      {"quiet", no_argument, nullptr, 'q'},
      {"announce-only", no_argument, nullptr, kAnnounce},
      {"login-only", no_argument, nullptr, kLoginOnly},
      {"raw-command", required_argument, nullptr, kRawCommand},
      {"raw-init-len", required_argument, nullptr, kRawInitLen},
      {"help", no_argument, nullptr, kHelp},
      {nullptr, 0, nullptr, 0}};
  SCollectTarget& t = pOpt->target;
  bool bUser = false, bPasswd = false;
  int c;
  double f = 0;
  while ((c = getopt_long(argc, argv, "i:s:b:u:p:t:m:d:r:n:q", longopts, nullptr)) != -1) {
    bool bOk = true;
    switch (c) {
      case 'i':
        bOk = copy_text(optarg, t.szInstance, sizeof(t.szInstance));
        break;
      case 's':
        bOk = parse_endpoint(optarg, t.szIP, &t.nPort);
        break;
      case 'b':
        bOk = parse_endpoint(optarg, t.szBakIP, &t.nBakPort);
        break;
      case 'u':
        bOk = bUser = copy_text(optarg, t.szUser, sizeof(t.szUser));
        break;
      case 'p':
        bOk = bPasswd = copy_text(optarg, t.szPasswd, sizeof(t.szPasswd));
        break;
      case kInitTimeout:
        bOk = parse_num(optarg, 1, 3600000, &f);
        t.nInitTimeoutMs = static_cast<int32>(f);
        break;
      case kAttachWait:
        bOk = parse_num(optarg, 0, 86400, &f);
        t.nAttachWaitMs = static_cast<int32>(f * 1000);
        break;
      case kReattachWait:
        bOk = parse_num(optarg, 0, 86400, &f);
        t.nReattachWaitMs = static_cast<int32>(f * 1000);
        break;
      case 't':
        bOk = parse_num(optarg, 1, 1000000, &f);
        pOpt->nTags = static_cast<uint32>(f);
        break;
      case kFirstTag:
        bOk = parse_num(optarg, 0, 4000000000.0, &f);
        pOpt->nFirstTag = static_cast<uint32>(f);
        break;
      case kFirstSeq:
        bOk = parse_num(optarg, 0, 2000000000.0, &f);
        pOpt->nFirstSeq = static_cast<uint32>(f);
        break;
      case 'm':
        bOk = parse_num(optarg, 1, 1e12, &f);
        pOpt->nRecordsPerTag = static_cast<uint64>(f);
        break;
      case 'd':
        bOk = parse_num(optarg, 0.001, 1e7, &pOpt->fDurationSec);
        break;
      case 'r':
        bOk = parse_num(optarg, 0, 1e9, &pOpt->fRate);
        break;
      case kTypes: {
        char szList[256];
        bOk = copy_text(optarg, szList, sizeof(szList));
        pOpt->types.clear();
        for (char* p = bOk ? strtok(szList, ",") : nullptr; p != nullptr;
             p = strtok(nullptr, ",")) {
          int32 nType = zdcollect_parse_type(p);
          if (nType < 0) bOk = false;
          pOpt->types.push_back(nType);
        }
        bOk = bOk && !pOpt->types.empty();
        break;
      }
      case kCsv:
        pOpt->szCsv = optarg;
        break;
      case 'n':
        bOk = parse_num(optarg, 1, 55188, &f);
        pOpt->nBatch = static_cast<int32>(f);
        break;
      case kFlushMs:
        bOk = parse_num(optarg, 1, 3600000, &f);
        pOpt->nFlushMs = static_cast<int32>(f);
        break;
      case kTally:
        pOpt->szTally = optarg;
        break;
      case kWaitDrained:
        bOk = parse_num(optarg, 0, 86400, &pOpt->fWaitDrainedSec);
        break;
      case 'q':
        pOpt->bQuiet = true;
        break;
      case kAnnounce:
        pOpt->eMode = EMode::kAnnounce;
        break;
      case kLoginOnly:
        pOpt->eMode = EMode::kLoginOnly;
        break;
      case kRawCommand:
        bOk = parse_num(optarg, 0, 65535, &f);
        pOpt->nRawCommand = static_cast<int32>(f);
        pOpt->eMode = EMode::kRawCommand;
        break;
      case kRawInitLen:
        bOk = parse_num(optarg, 1, BUFFER_CTRL_MSG_MAX_LEN, &f);
        pOpt->nRawInitLen = static_cast<int32>(f);
        pOpt->eMode = EMode::kRawInit;
        break;
      case kHelp:
        Usage(stdout);
        return kExitOk;
      default:
        Usage(stderr);
        return kExitUsage;
    }
    if (!bOk) {
      fprintf(stderr, "zdcollect: bad value for %s: '%s'\n", argv[optind - 1], optarg);
      return kExitUsage;
    }
  }
  if (optind < argc) {
    fprintf(stderr, "zdcollect: unexpected argument '%s'\n", argv[optind]);
    return kExitUsage;
  }
  if (bUser != bPasswd) {
    fprintf(stderr, "zdcollect: --user and --password go together\n");
    return kExitUsage;
  }
  t.bLogin = bUser;
  if (pOpt->eMode == EMode::kLoginOnly && !bUser) {
    fprintf(stderr, "zdcollect: --login-only needs --user and --password\n");
    return kExitUsage;
  }
  return -1;
}

const char* describe(int32 nRet) {
  switch (nRet) {
    case ZDCOLLECT_E_NO_SERVICE:
      return "no live service instance of that name (is zdBuffer running?)";
    case ZDCOLLECT_E_INIT_TIMEOUT:
      return "no init reply from the service";
    case ZDCOLLECT_E_INIT_REFUSED:
      return "the service refused the announcement";
    case ZDCOLLECT_E_STOPPED:
      return "interrupted";
    case EC_RD_PROCCOMM_GONE:
      return "the service instance went away";
    case EC_RD_PROCCOMM_INCOMPATIBLE:
      return "the instance has another layout version";
    case EC_RD_PROCCOMM_MSG_TOO_LARGE:
      return "batch too large for the shared memory";
    case ZDC_E_BAD_ARG:
      return "malformed value";
    case ZDC_E_VALUE_TOO_LONG:
      return "value or line too long";
    case ZDC_E_TEXT_TOO_LONG:
      return "address or credentials too long";
    default:
      return "error";
  }
}

void report_open_failure(const CCollectSession& session, const SOptions& opt, int32 nRet) {
  if (nRet == ZDCOLLECT_E_INIT_REFUSED)
    fprintf(stderr, "zdcollect: the service refused the announcement of %s:%u: code %d\n",
            opt.target.szIP, opt.target.nPort, session.InitRetCode());
  else
    fprintf(stderr, "zdcollect: cannot announce to '%s': %s (%d)\n", opt.target.szInstance,
            describe(nRet), nRet);
}

// Prints a progress line once a second until stopped.
class CProgress {
 public:
  CProgress(const SSendStats& stats, bool bQuiet) : m_stats(stats) {
    m_nStartNs = mono_ns();
    if (!bQuiet) m_thread = std::thread([this] { Run(); });
  }
  ~CProgress() { Stop(); }
  CProgress(const CProgress&) = delete;
  CProgress& operator=(const CProgress&) = delete;
  void Stop() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_bDone = true;
    }
    m_cv.notify_all();
    if (m_thread.joinable()) m_thread.join();
  }
  double Elapsed() const { return static_cast<double>(mono_ns() - m_nStartNs) / 1e9; }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    uint64 nLastRecords = 0;
    while (!m_cv.wait_for(lock, std::chrono::seconds(1), [this] { return m_bDone; })) {
      uint64 nRecords = m_stats.nRecords.load(std::memory_order_relaxed);
      fprintf(
          stderr,
          "zdcollect: %5.1f s  %llu records in %llu batches  %llu/s  refused %llu  retries %llu\n",
          Elapsed(), static_cast<unsigned long long>(nRecords),
          static_cast<unsigned long long>(m_stats.nBatches.load(std::memory_order_relaxed)),
          static_cast<unsigned long long>(nRecords - nLastRecords),
          static_cast<unsigned long long>(m_stats.nRefused.load(std::memory_order_relaxed)),
          static_cast<unsigned long long>(m_stats.nRetries.load(std::memory_order_relaxed)));
      nLastRecords = nRecords;
    }
  }

  const SSendStats& m_stats;
  int64 m_nStartNs = 0;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_bDone = false;
  std::thread m_thread;
};

// Records per tag of batches that were accepted (CSV input): counted from the
// batch bytes themselves, so the tally reports what went out.
void count_batch_tags(const char* pBatch, int32 nLen, std::map<uint32, uint64>* pCounts) {
  int32 nPos = BUFFER_BATCH_HEAD_LEN;
  while (nPos + BUFFER_ENTRY_HEAD_LEN <= nLen) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(pBatch + nPos);
    uint32 nTag = p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32>(p[3]) << 24;
    int32 nBody = p[4] | p[5] << 8;
    ++(*pCounts)[nTag];
    nPos += BUFFER_ENTRY_HEAD_LEN + nBody;
  }
}

int WriteTally(const SOptions& opt, uint64 nSentRecords, const std::map<uint32, uint64>& counts) {
  FILE* pFile = fopen(opt.szTally, "w");
  if (pFile == nullptr) {
    fprintf(stderr, "zdcollect: cannot write %s\n", opt.szTally);
    return kExitFailed;
  }
  fputs("tag,sent,last\n", pFile);
  if (opt.szCsv != nullptr) {
    for (const auto& [nTag, nCount] : counts)
      fprintf(pFile, "%u,%llu,\n", nTag, static_cast<unsigned long long>(nCount));
  } else {
    for (uint32 o = 0; o < opt.nTags; ++o) {
      uint64 nCount = nSentRecords / opt.nTags + (o < nSentRecords % opt.nTags ? 1 : 0);
      fprintf(pFile, "%u,%llu,%lld\n", opt.nFirstTag + o, static_cast<unsigned long long>(nCount),
              static_cast<long long>(opt.nFirstSeq) + static_cast<long long>(nCount) - 1);
    }
  }
  return fclose(pFile) == 0 ? kExitOk : kExitFailed;
}

int RunControlOnly(const SOptions& opt) {
  CCollectSession session(opt.target, &g_bStop);
  int32 nRet = 0;
  char msg[BUFFER_CTRL_MSG_MAX_LEN] = {};
  int32 nLen = 0;
  switch (opt.eMode) {
    case EMode::kAnnounce:
      nRet = session.Open();
      if (nRet != 0) {
        report_open_failure(session, opt, nRet);
        return kExitFailed;
      }
      printf("QUEUE %d\n", session.DataQueueId());
      fflush(stdout);
      return kExitOk;
    case EMode::kLoginOnly:
      nRet = zdc_build_login_msg(opt.target.szUser, opt.target.szPasswd, msg, sizeof(msg), &nLen);
      break;
    case EMode::kRawCommand:
      nRet = zdc_build_init_msg(opt.target.szIP, opt.target.nPort, opt.target.szBakIP,
                                opt.target.nBakPort, 0, msg, sizeof(msg), &nLen);
      if (nRet == 0) {
        uint16 nCommand = static_cast<uint16>(opt.nRawCommand);  // host order, as the head is
        memcpy(msg, &nCommand, sizeof(nCommand));
      }
      break;
    default:  // kRawInit: a well-formed init whose length is then cut or padded
      nRet = zdc_build_init_msg(opt.target.szIP, opt.target.nPort, opt.target.szBakIP,
                                opt.target.nBakPort, 0, msg, sizeof(msg), &nLen);
      nLen = opt.nRawInitLen;
      break;
  }
  if (nRet == 0) nRet = session.SendControlRaw(msg, nLen);
  if (nRet != 0) {
    fprintf(stderr, "zdcollect: cannot send the control message: %s (%d)\n", describe(nRet), nRet);
    return kExitFailed;
  }
  fprintf(stderr, "zdcollect: sent a %d-byte control message\n", nLen);
  return kExitOk;
}

int RunStream(const SOptions& opt) {
  FILE* pCsv = nullptr;
  if (opt.szCsv != nullptr) {
    pCsv = strcmp(opt.szCsv, "-") == 0 ? stdin : fopen(opt.szCsv, "r");
    if (pCsv == nullptr) {
      fprintf(stderr, "zdcollect: cannot open %s\n", opt.szCsv);
      return kExitFailed;
    }
  }
  CCollectSession session(opt.target, &g_bStop);
  int32 nRet = session.Open();
  if (nRet != 0) {
    report_open_failure(session, opt, nRet);
    if (pCsv != nullptr && pCsv != stdin) fclose(pCsv);
    return kExitFailed;
  }
  if (!opt.bQuiet)
    fprintf(stderr, "zdcollect: announced %s:%u to '%s', data queue %d\n", opt.target.szIP,
            opt.target.nPort, opt.target.szInstance, session.DataQueueId());

  // The one batch buffer, reused for every batch.
  std::vector<char> buf(BUFFER_BATCH_MAX_LEN);
  ZdcBatch batch;
  zdc_batch_init(&batch, buf.data(), static_cast<int32>(buf.size()));
  CSyntheticSource synth(opt.nFirstTag, opt.nTags, opt.nFirstSeq, opt.types);
  CCsvSource csv(pCsv);
  std::map<uint32, uint64> csvCounts;

  const uint64 nTotal = opt.nRecordsPerTag != 0 ? opt.nRecordsPerTag * opt.nTags : UINT64_MAX;
  const bool bLimited = opt.szCsv != nullptr || opt.nRecordsPerTag != 0 || opt.fDurationSec > 0;
  const int64 nStartNs = mono_ns();
  const int64 nEndNs =
      opt.fDurationSec > 0 ? nStartNs + static_cast<int64>(opt.fDurationSec * 1e9) : INT64_MAX;
  const int64 nFlushNs = static_cast<int64>(opt.nFlushMs) * 1000000;
  int64 nBatchStartNs = 0;
  uint64 nNext = 0;  // next record index (synthetic)
  uint64 nGenerated = 0;
  bool bEnd = false;
  int32 nFail = 0;
  CProgress progress(session.Stats(), opt.bQuiet);

  auto flush = [&]() -> bool {
    if (batch.nCount == 0) return true;
    const char* pData = nullptr;
    int32 nLen = 0;
    zdc_batch_get(&batch, &pData, &nLen);
    int32 r = session.Send(pData, nLen, batch.nCount);
    if (r != 0) {
      nFail = r;
      return false;
    }
    if (pCsv != nullptr) count_batch_tags(pData, nLen, &csvCounts);
    zdc_batch_reset(&batch);
    return true;
  };

  while (!bEnd && nFail == 0) {
    if (g_bStop.load(std::memory_order_relaxed)) break;
    int64 nNow = mono_ns();
    if (nNow >= nEndNs) break;
    // Records due by now: all of them without a rate.
    uint64 nDue = nTotal;
    if (opt.fRate > 0) {
      uint64 nByRate =
          static_cast<uint64>(static_cast<double>(nNow - nStartNs) * opt.fRate / 1e9) + 1;
      if (nByRate < nDue) nDue = nByRate;
    }
    // Add what is due, at most one batch per pass so that stop and end are seen.
    while (nFail == 0 && nNext < nDue) {
      struct timespec ts;
      clock_gettime(CLOCK_REALTIME, &ts);
      int32 r = pCsv != nullptr ? csv.Next(&batch)
                                : synth.Append(&batch, nNext, static_cast<int32>(ts.tv_sec),
                                               static_cast<int16>(ts.tv_nsec / 1000000));
      if (r == 1) {  // end of the CSV file
        bEnd = true;
        break;
      }
      if (r == ZDC_E_BATCH_FULL && batch.nCount > 0) {
        if (!flush()) break;
        continue;
      }
      if (r != 0) {
        if (pCsv != nullptr)
          fprintf(stderr, "zdcollect: %s line %lld: %s (%d)\n", opt.szCsv,
                  static_cast<long long>(csv.Line()), describe(r), r);
        nFail = r;
        break;
      }
      if (batch.nCount == 1) nBatchStartNs = mono_ns();
      ++nNext;
      ++nGenerated;
      if (batch.nCount >= opt.nBatch) {
        flush();
        break;
      }
    }
    if (nNext >= nTotal) bEnd = true;
    if (bEnd || nFail != 0 || opt.fRate <= 0) continue;
    // Paced: a partial batch waits at most the flush period.
    nNow = mono_ns();
    if (batch.nCount > 0 && nNow - nBatchStartNs >= nFlushNs) {
      flush();
      continue;
    }
    int64 nWakeNs = nStartNs + static_cast<int64>(static_cast<double>(nNext) * 1e9 / opt.fRate);
    if (batch.nCount > 0 && nBatchStartNs + nFlushNs < nWakeNs) nWakeNs = nBatchStartNs + nFlushNs;
    if (nWakeNs > nEndNs) nWakeNs = nEndNs;
    int64 nSleepNs = nWakeNs - nNow;
    if (nSleepNs > 50000000) nSleepNs = 50000000;  // notice a stop within 50 ms
    if (nSleepNs > 0) {
      struct timespec req = {0, static_cast<long>(nSleepNs)};
      nanosleep(&req, nullptr);
    }
  }
  if (nFail == 0) flush();
  bool bInterrupted = g_bStop.load() && !bEnd && bLimited;
  const SSendStats& st = session.Stats();
  uint64 nSent = st.nRecords.load();
  int32 nDrain = 0;
  if (nFail == 0 && opt.fWaitDrainedSec > 0)
    nDrain = session.WaitDrained(static_cast<int32>(opt.fWaitDrainedSec * 1000));
  progress.Stop();
  double fSec = progress.Elapsed();
  fprintf(
      stderr,
      "zdcollect: done in %.1f s: %llu records in %llu batches sent (%.0f records/s, %.2f MB/s); "
      "refused %llu, retries %llu, re-attaches %llu; %llu not sent\n",
      fSec, static_cast<unsigned long long>(nSent),
      static_cast<unsigned long long>(st.nBatches.load()), fSec > 0 ? nSent / fSec : 0.0,
      fSec > 0 ? st.nBytes.load() / fSec / 1e6 : 0.0,
      static_cast<unsigned long long>(st.nRefused.load()),
      static_cast<unsigned long long>(st.nRetries.load()),
      static_cast<unsigned long long>(st.nReattaches.load()),
      static_cast<unsigned long long>(nGenerated - nSent));
  if (nFail != 0) fprintf(stderr, "zdcollect: stopped: %s (%d)\n", describe(nFail), nFail);
  if (nDrain != 0)
    fprintf(stderr, "zdcollect: the service did not take every message in time (%d)\n", nDrain);
  if (pCsv != nullptr && pCsv != stdin) fclose(pCsv);
  int nExit = nFail != 0 || nGenerated != nSent || nDrain != 0 ? kExitFailed : kExitOk;
  if (opt.szTally != nullptr && WriteTally(opt, nSent, csvCounts) != kExitOk) nExit = kExitFailed;
  if (nExit == kExitOk && bInterrupted) nExit = kExitInterrupted;
  return nExit;
}

}  // namespace

int main(int argc, char** argv) {
  SOptions opt;
  int nExit = ParseArgs(argc, argv, &opt);
  if (nExit >= 0) return nExit;
  struct sigaction sa = {};
  sa.sa_handler = on_signal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return opt.eMode == EMode::kStream ? RunStream(opt) : RunControlOnly(opt);
}
