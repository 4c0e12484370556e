// End-to-end throughput of the data handler, against a collector that calls
// the client library itself, both into the counting reference server; and
// the rate at which a filled cache file drains. Prints a table of medians
// (docs/performance.md).
//
// This process is the service side: the shared-memory instance, the cache
// file, the data handler and the counting server. Each collector is this
// program started again (fork and exec), a separate process as in production.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CacheFile.h"
#include "DataHandler.h"
#include "logc_test.h"
#include "proccomm.h"
#include "protocol/buffer_collector.h"
#include "refserver.h"
#include "zdorlo_api.h"

namespace {

constexpr int32 kBatchBytes = 65536;
char g_szSelf[4096] = "/proc/self/exe";  // this program, resolved at start (also under valgrind)
constexpr int32 kSec = 1700000000;

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point t0, Clock::time_point t1) {
  return std::chrono::duration<double>(t1 - t0).count();
}

// CPU seconds used so far by this process (all threads) or by its reaped
// children.
double cpu_seconds(int nWho) {
  struct rusage ru;
  getrusage(nWho, &ru);
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
}

// CPU nanoseconds per record of one measurement: this process (data thread,
// server threads, the bench's polling) and the collector child.
struct SCpu {
  double fSelf = 0, fChild = 0;
};

class CCpuMeter {
 public:
  CCpuMeter() : m_fSelf(cpu_seconds(RUSAGE_SELF)), m_fChild(cpu_seconds(RUSAGE_CHILDREN)) {}
  SCpu PerRecord(int64 nRecords) const {
    SCpu c;
    c.fSelf = (cpu_seconds(RUSAGE_SELF) - m_fSelf) * 1e9 / static_cast<double>(nRecords);
    c.fChild = (cpu_seconds(RUSAGE_CHILDREN) - m_fChild) * 1e9 / static_cast<double>(nRecords);
    return c;
  }

 private:
  double m_fSelf, m_fChild;
};

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

struct SOptions {
  int nRuns = 5;
  int64 nRecords = 16000000;     // per forwarding or direct run
  int64 nDrainRecords = 4000000; // per outage (88 MB of cache file)
  std::string strDir = "/tmp";
  std::string strOnly;  // "direct", "forward" or "drain": one row kind, for profiling
};

// Child: attaches to the instance and writes nRecords int32 records in 64 KiB
// batches to the queue as fast as the pool takes them.
[[noreturn]] void collector_via_queue(const std::string& strShm, int32 nQueue, int64 nRecords) {
  ProcCommHandle h = nullptr;
  ProcCommQueueHandle q = nullptr;
  if (proccomm_attach(strShm.c_str(), &h) != 0 || proccomm_reg(h, nQueue, &q) != 0) _exit(2);
  ZdcBatch b;
  if (zdc_batch_create(&b, kBatchBytes) != 0) _exit(3);
  int64 i = 0;
  while (i < nRecords) {
    int32 nRet = zdc_batch_add_int32(&b, 1 + static_cast<uint32>(i % 1000), kSec,
                                     static_cast<int16>(i % 1000), 192, static_cast<int32>(i));
    if (nRet == 0) ++i;
    if (nRet == ZDC_E_BATCH_FULL || i == nRecords) {
      while ((nRet = proccomm_send(q, b.pBuf, b.nLen)) == EC_RD_PROCCOMM_NO_SPACE)
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      if (nRet != 0) _exit(4);
      zdc_batch_reset(&b);
    } else if (nRet != 0) {
      _exit(5);
    }
  }
  zdc_batch_destroy(&b);
  proccomm_unreg(h, nQueue, q);
  proccomm_release(h);
  _exit(0);
}

// Child: the same records, in calls of as many records as one 64 KiB batch
// holds (or of nPerCall), straight to the server through the client library.
[[noreturn]] void collector_direct(uint16 nPort, int64 nRecords, int32 nPerCall) {
  ZD3Connection c;
  memset(&c, 0, sizeof(c));
  strcpy(c.szAddress, "127.0.0.1");
  c.nPort = nPort;
  c.nTimeout = 2;
  if (nt3_connect(&c) != 0) _exit(2);
  std::vector<uint32> ids(static_cast<size_t>(nPerCall));
  std::vector<ZD3Record> recs(static_cast<size_t>(nPerCall));
  std::vector<int32> errs(static_cast<size_t>(nPerCall));
  int64 i = 0;
  while (i < nRecords) {
    int32 n = 0;
    for (; n < nPerCall && i < nRecords; ++n, ++i) {
      ids[static_cast<size_t>(n)] = 1 + static_cast<uint32>(i % 1000);
      ZD3Record& r = recs[static_cast<size_t>(n)];
      r.nSec = kSec;
      r.nMsec = static_cast<int16>(i % 1000);
      r.nQuality = 192;
      r.nTagType = ZD3_TAG_TYPE_INT32;
      r.value.nInt32 = static_cast<int32>(i);
    }
    if (sn3_save_tags_disorder_snapshots(n, ids.data(), recs.data(), errs.data()) != 0) _exit(3);
  }
  nt3_disconnect();
  _exit(0);
}

// Starts this program again as a collector: exec'd, so that the child holds
// nothing of this process's threads, locks or sessions.
pid_t spawn(const std::vector<std::string>& args) {
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> argv;
    static char szSelf[] = "datahandler_bench";
    argv.push_back(szSelf);
    for (const std::string& s : args) argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    execv(g_szSelf, argv.data());
    _exit(127);
  }
  return pid;
}

bool reap(pid_t pid) {
  int nStatus = 0;
  waitpid(pid, &nStatus, 0);
  return WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0;
}

// Waits until the server has counted nTarget records; false after 60 s.
bool wait_stored(CRefServer& srv, uint64 nTarget, Clock::time_point* pT) {
  auto tEnd = Clock::now() + std::chrono::seconds(60);
  while (srv.Stats().nStored < nTarget) {
    if (Clock::now() > tEnd) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  *pT = Clock::now();
  return true;
}

int32 records_per_batch() {
  ZdcBatch b;
  zdc_batch_create(&b, kBatchBytes);
  while (zdc_batch_add_int32(&b, 1, kSec, 0, 192, 0) == 0) {
  }
  int32 n = b.nCount;
  zdc_batch_destroy(&b);
  return n;
}

class CBench {
 public:
  explicit CBench(const SOptions& opt) : m_opt(opt) {}
  CBench(const CBench&) = delete;
  CBench& operator=(const CBench&) = delete;

  bool Setup() {
    m_strShm = "dhbench_" + std::to_string(getpid());
    if (proccomm_init(m_strShm.c_str(), 64, 4096, 1000, &m_hPc) != 0) return false;
    if (proccomm_get_unused_queueid(m_hPc, &m_nQueue) != 0) return false;
    m_strCache = m_opt.strDir + "/dhbench_" + std::to_string(getpid()) + "_buffer.buf";
    std::filesystem::remove(m_strCache);
    // 4 MiB blocks from 40 MB up; room for several runs of the drain test.
    if (m_cache.Init("bench", m_strCache.c_str(), 512, &m_listSrv) != 0) return false;
    SRefServerConfig config;  // no database: counting mode
    if (m_srv.Start(config) != 0) return false;
    m_pHandler = std::make_unique<CDataHandler>("127.0.0.1", m_srv.Port(), "", 0, m_nQueue,
                                                /*period ms=*/50, /*send timeout s=*/5, 2);
    m_pHandler->Init(&m_hPc, &m_cache);
    if (m_pHandler->Start() != 0) return false;
    // Let the handler connect (500 ms before its first attempt).
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    return true;
  }

  void Teardown() {
    if (m_pHandler) m_pHandler->Stop();
    m_pHandler.reset();
    m_srv.Stop();
    m_cache.Release();
    std::filesystem::remove(m_strCache);
    if (m_hPc != nullptr) proccomm_release(m_hPc);
  }

  // Records/s through queue, data thread and server.
  double Forward(SCpu* pCpu) {
    uint64 nBase = m_srv.Stats().nStored;
    CCpuMeter cpu;
    auto t0 = Clock::now();
    pid_t pid = spawn({"--queue-collector", m_strShm, std::to_string(m_nQueue),
                       std::to_string(m_opt.nRecords)});
    Clock::time_point t1;
    bool bOk = wait_stored(m_srv, nBase + static_cast<uint64>(m_opt.nRecords), &t1);
    if (!reap(pid) || !bOk) return -1;
    *pCpu = cpu.PerRecord(m_opt.nRecords);
    return static_cast<double>(m_opt.nRecords) / seconds(t0, t1);
  }

  double Direct(int32 nPerCall, SCpu* pCpu) {
    uint64 nBase = m_srv.Stats().nStored;
    CCpuMeter cpu;
    auto t0 = Clock::now();
    pid_t pid = spawn({"--direct-collector", std::to_string(m_srv.Port()),
                       std::to_string(m_opt.nRecords), std::to_string(nPerCall)});
    Clock::time_point t1;
    bool bOk = wait_stored(m_srv, nBase + static_cast<uint64>(m_opt.nRecords), &t1);
    if (!reap(pid) || !bOk) return -1;
    *pCpu = cpu.PerRecord(m_opt.nRecords);
    return static_cast<double>(m_opt.nRecords) / seconds(t0, t1);
  }

  // Fills the cache file during an outage (every save closed unanswered,
  // reconnections refused), then ends the outage and measures records/s
  // from the first record the server counts to the last.
  double Drain(double* pFillRate) {
    uint64 nBase = m_srv.Stats().nStored;
    m_srv.Control("close-every 1");
    m_srv.Control("refuse-connections on");
    auto t0 = Clock::now();
    const int64 nRecords = m_opt.nDrainRecords;
    pid_t pid = spawn({"--queue-collector", m_strShm, std::to_string(m_nQueue),
                       std::to_string(nRecords)});
    if (!reap(pid)) return -1;
    // The queue is empty once the data thread has taken every batch.
    do {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } while (proccomm_get_unused_block_percent(m_hPc) < 0.999);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    *pFillRate = static_cast<double>(nRecords) / seconds(t0, Clock::now());
    m_srv.Control("reset");
    // The first attempt after the outage comes after the 1 s retry pause.
    Clock::time_point tFirst, tLast;
    if (!wait_stored(m_srv, nBase + 1, &tFirst)) return -1;
    uint64 nAtFirst = m_srv.Stats().nStored;
    if (!wait_stored(m_srv, nBase + static_cast<uint64>(nRecords), &tLast)) return -1;
    return static_cast<double>(nBase + nRecords - nAtFirst) / seconds(tFirst, tLast);
  }

 private:
  SOptions m_opt;
  std::string m_strShm, m_strCache;
  ProcCommHandle m_hPc = nullptr;
  int32 m_nQueue = 0;
  CCacheFile m_cache;
  std::list<SrvInfo*> m_listSrv;
  CRefServer m_srv;
  std::unique_ptr<CDataHandler> m_pHandler;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && strcmp(argv[1], "--queue-collector") == 0)
    collector_via_queue(argv[2], atoi(argv[3]), atoll(argv[4]));
  if (argc == 5 && strcmp(argv[1], "--direct-collector") == 0)
    collector_direct(static_cast<uint16>(atoi(argv[2])), atoll(argv[3]), atoi(argv[4]));
  ssize_t nSelf = readlink("/proc/self/exe", g_szSelf, sizeof(g_szSelf) - 1);
  if (nSelf > 0) g_szSelf[nSelf] = '\0';
  SOptions opt;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string k = argv[i];
    if (k == "--runs") opt.nRuns = atoi(argv[i + 1]);
    else if (k == "--records") opt.nRecords = atoll(argv[i + 1]);
    else if (k == "--drain-records") opt.nDrainRecords = atoll(argv[i + 1]);
    else if (k == "--dir") opt.strDir = argv[i + 1];
    else if (k == "--only") opt.strOnly = argv[i + 1];
    else {
      fprintf(stderr,
              "usage: %s [--runs 5] [--records 16000000] [--drain-records 4000000] [--dir /tmp]\n"
              "          [--only direct|forward|drain]\n",
              argv[0]);
      return 2;
    }
  }
  // The service's log threshold would be INFO; nothing the loop logs per
  // batch is above TRACE/DEBUG, so a FATAL threshold costs the same.
  logc_init_capture(LL_FATAL);
  const int32 nPerBatch = records_per_batch();
  CBench bench(opt);
  if (!bench.Setup()) {
    fprintf(stderr, "setup failed\n");
    return 1;
  }
  std::vector<double> vFwd, vDirect, vDirect1M, vDrain, vFill;
  std::vector<double> vCpuSelf[3], vCpuChild[3];  // direct, direct 1 MiB, forward
  for (int r = 0; r < opt.nRuns; ++r) {
    SCpu cpu[3];
    auto wanted = [&](const char* szKind) { return opt.strOnly.empty() || opt.strOnly == szKind; };
    vDirect.push_back(wanted("direct") ? bench.Direct(nPerBatch, &cpu[0]) : 0);
    vFwd.push_back(wanted("forward") ? bench.Forward(&cpu[2]) : 0);
    // As many records a call as one 1 MiB send buffer holds.
    vDirect1M.push_back(wanted("direct") ? bench.Direct(47662, &cpu[1]) : 0);
    for (int k = 0; k < 3; ++k) {
      vCpuSelf[k].push_back(cpu[k].fSelf);
      vCpuChild[k].push_back(cpu[k].fChild);
    }
    double fFill = 0;
    vDrain.push_back(wanted("drain") ? bench.Drain(&fFill) : 0);
    vFill.push_back(fFill);
    fprintf(stderr, "run %d: direct %.0f fwd %.0f direct1M %.0f drain %.0f fill %.0f\n", r + 1,
            vDirect.back(), vFwd.back(), vDirect1M.back(), vDrain.back(), vFill.back());
  }
  bench.Teardown();
  logc_finish();

  double fDirect = median(vDirect), fDirect1M = median(vDirect1M);
  printf("int32 records per run: %lld forwarded or direct, %lld drained; %d per 64 KiB batch; "
         "medians of %d runs\n\n",
         static_cast<long long>(opt.nRecords), static_cast<long long>(opt.nDrainRecords), nPerBatch,
         opt.nRuns);
  printf("| path | records/s | vs direct (64 KiB calls) | vs direct (1 MiB calls) |\n");
  printf("|---|---:|---:|---:|\n");
  auto row = [&](const char* szName, double f) {
    printf("| %s | %.0f | %.2f | %.2f |\n", szName, f, f / fDirect, f / fDirect1M);
  };
  row("direct client, 64 KiB calls (baseline)", fDirect);
  row("direct client, 1 MiB calls (baseline)", fDirect1M);
  row("collector -> queue -> data thread -> server", median(vFwd));
  row("cache file fill during outage", median(vFill));
  row("cache file drain", median(vDrain));

  printf("\nCPU per record (ns, medians): the collector process, and this process (server, plus the\n"
         "data thread when forwarding)\n\n");
  printf("| path | collector | server side |\n|---|---:|---:|\n");
  const char* szNames[3] = {"direct client, 64 KiB calls", "direct client, 1 MiB calls",
                            "collector -> queue -> data thread -> server"};
  for (int k = 0; k < 3; ++k)
    printf("| %s | %.1f | %.1f |\n", szNames[k], median(vCpuChild[k]), median(vCpuSelf[k]));
  return 0;
}
