// Two-process benchmark of zdProcComm against bare baselines measured in the
// same run:
//  - throughput: one sender process, one receiver process, messages of 64 B,
//    4 KiB, 64 KiB and 1 MiB; baseline: a minimal single-producer ring in
//    shared memory with spinning ends (the copy limit of the machine);
//  - wake-up latency of a receiver asleep in a waiting receive; baseline: a
//    blocking pipe ping-pong (the kernel's wake-up limit).
// Each figure is the median over --runs runs; the table prints ratios.
//
// Usage: proccomm_bench [--runs N] [--scale F] [--small-mb M] [--only SIZE]
//   F scales message counts, M is the small memory size (ring and pool) in MiB.
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "proccomm.h"

namespace {

constexpr int32 kMemMb = 64;  // the large pool, and the memory of the wake-up runs
constexpr int32 kBlockSize = 4096;
// Throughput is measured with two memory sizes, the same for the ring and
// the pool: small enough that the data in flight stays in the caches
// (--small-mb) and large (64 MiB), where a sender that outruns the receiver
// fills the memory and the receiver reads cold data.
int32 g_nSmallMb = 4;
int32 g_nRetryUs = 20;  // --retry-us: a refused sender's pause
size_t g_nSmallRingBytes = static_cast<size_t>(4) << 20;

int64 now_ns() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  if (v.empty()) return 0.0;
  size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(i, v.size() - 1)];
}

void* shared_anon(size_t nBytes) {
  void* p = mmap(nullptr, nBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE,
                 -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

inline void cpu_relax() { __builtin_ia32_pause(); }

// Spins a little, then yields: two cores are shared with other work.
template <typename Pred>
void spin_until(Pred pred) {
  for (uint32 n = 0; !pred(); ++n) {
    if (n < 256) {
      cpu_relax();
    } else {
      sched_yield();
    }
  }
}

struct SChild {
  pid_t pid;
  int nReadyFd;
};

// Forks fn; the parent waits until the child calls ready().
template <typename Fn>
SChild start_child(Fn fn) {
  int fds[2];
  if (pipe(fds) != 0) abort();
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    int nFd = fds[1];
    auto ready = [nFd] {
      char c = 'r';
      (void)!write(nFd, &c, 1);
    };
    _exit(fn(ready));
  }
  close(fds[1]);
  char c;
  if (read(fds[0], &c, 1) != 1) abort();
  return {pid, fds[0]};
}

int end_child(const SChild& c) {
  int nStatus = 0;
  waitpid(c.pid, &nStatus, 0);
  close(c.nReadyFd);
  return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 100;
}

// ---- Throughput ------------------------------------------------------------

struct SRate {
  double fMsgPerSec;
  double fGBPerSec;
};

SRate rate(int64 nMsgs, int32 nSize, int64 nNs) {
  double fSec = static_cast<double>(nNs) / 1e9;
  return {static_cast<double>(nMsgs) / fSec, static_cast<double>(nMsgs) * nSize / fSec / 1e9};
}

// The bare ring: fixed-size slots, one producer, one consumer, counters on
// their own cache lines.
struct SRing {
  alignas(64) std::atomic<uint64> nHead;  // messages consumed
  alignas(64) std::atomic<uint64> nTail;  // messages produced
  alignas(64) std::atomic<int64> nEndNs;
};

SRate bench_ring(int32 nSize, int64 nMsgs, size_t kRingBytes) {
  void* pMem = shared_anon(sizeof(SRing) + kRingBytes);
  if (pMem == nullptr) abort();
  SRing* r = new (pMem) SRing;
  r->nHead = 0;
  r->nTail = 0;
  uint8* pData = static_cast<uint8*>(pMem) + sizeof(SRing);
  const uint64 nSlots = kRingBytes / static_cast<uint64>(nSize);
  std::vector<char> src(static_cast<size_t>(nSize), 's');
  SChild c = start_child([&](auto ready) {
    std::vector<char> dst(static_cast<size_t>(nSize));
    ready();
    for (uint64 i = 0; i < static_cast<uint64>(nMsgs); ++i) {
      spin_until([&] { return r->nTail.load(std::memory_order_acquire) > i; });
      memcpy(dst.data(), pData + (i % nSlots) * static_cast<uint64>(nSize),
             static_cast<size_t>(nSize));
      r->nHead.store(i + 1, std::memory_order_release);
    }
    r->nEndNs = now_ns();
    return dst[0] == 's' ? 0 : 1;
  });
  int64 t0 = now_ns();
  for (uint64 i = 0; i < static_cast<uint64>(nMsgs); ++i) {
    spin_until([&] { return i - r->nHead.load(std::memory_order_acquire) < nSlots; });
    memcpy(pData + (i % nSlots) * static_cast<uint64>(nSize), src.data(),
           static_cast<size_t>(nSize));
    r->nTail.store(i + 1, std::memory_order_release);
  }
  if (end_child(c) != 0) fprintf(stderr, "ring receiver failed\n");
  SRate res = rate(nMsgs, nSize, r->nEndNs - t0);
  munmap(pMem, sizeof(SRing) + kRingBytes);
  return res;
}

std::string g_szName;

SRate bench_proccomm(int32 nSize, int64 nMsgs, int32 nPoolMb, uint64* pnRefused) {
  ProcCommHandle h = nullptr;
  if (proccomm_init(g_szName.c_str(), nPoolMb, kBlockSize, 1000, &h) != 0) abort();
  ProcCommQueueHandle hQ = nullptr;
  if (proccomm_reg(h, 2, &hQ) != 0) abort();
  std::atomic<int64>* pEnd = static_cast<std::atomic<int64>*>(shared_anon(4096));
  std::vector<char> src(static_cast<size_t>(nSize), 'p');
  SChild c = start_child([&](auto ready) {
    ProcCommHandle hc = nullptr;
    ProcCommQueueHandle hcq = nullptr;
    if (proccomm_init(g_szName.c_str(), nPoolMb, kBlockSize, 1000, &hc) != 0) return 2;
    if (proccomm_reg(hc, 2, &hcq) != 0) return 3;
    std::vector<char> dst(PROCCOMM_MAX_MSG_LEN);
    ready();
    int nRet = 0;
    for (int64 i = 0; i < nMsgs && nRet == 0; ++i) {
      int32 nLen = PROCCOMM_MAX_MSG_LEN;
      nRet = proccomm_recv(hcq, dst.data(), &nLen, 1, 5000);
      if (nRet == 0 && nLen != nSize) nRet = 4;
    }
    pEnd->store(now_ns());
    proccomm_unreg(hc, 2, hcq);
    proccomm_release(hc);
    return nRet == 0 ? 0 : 5;
  });
  uint64 nRefused = 0;
  int64 t0 = now_ns();
  for (int64 i = 0; i < nMsgs; ++i) {
    int32 nRet;
    // A full instance refuses; the sender decides to retry, here after a
    // short sleep that leaves the CPU to the receiver.
    while ((nRet = proccomm_send(hQ, src.data(), nSize)) == EC_RD_PROCCOMM_NO_SPACE) {
      ++nRefused;
      usleep(static_cast<useconds_t>(g_nRetryUs));
    }
    if (nRet != 0) {
      fprintf(stderr, "send failed %d\n", nRet);
      abort();
    }
  }
  if (end_child(c) != 0) fprintf(stderr, "proccomm receiver failed\n");
  SRate res = rate(nMsgs, nSize, pEnd->load() - t0);
  munmap(pEnd, 4096);
  proccomm_unreg(h, 2, hQ);
  proccomm_release(h);
  *pnRefused += nRefused;
  return res;
}

// ---- Wake-up latency -------------------------------------------------------

// One-way latency: the sender stamps the message, the receiver, asleep in a
// blocking read, reads the clock when it runs again. The round trip (until
// the sender has the echo) is measured too. Between rounds the sender pauses
// so that the receiver is surely asleep.
struct SLatency {
  std::vector<double> oneWayUs;
  std::vector<double> halfRttUs;
};

constexpr int kPauseUs = 200;
// Rounds run before measuring: for some tens of milliseconds after a process
// starts and maps its memory, wake-ups are several times slower.
constexpr int kWarmRounds = 300;

void bench_pipe(int nRounds, SLatency* pOut) {
  int toChild[2], toParent[2];
  if (pipe(toChild) != 0 || pipe(toParent) != 0) abort();
  double* pOneWay =
      static_cast<double*>(shared_anon(sizeof(double) * static_cast<size_t>(nRounds)));
  SChild c = start_child([&](auto ready) {
    ready();
    for (int i = 0; i < nRounds; ++i) {
      int64 nStamp;
      if (read(toChild[0], &nStamp, sizeof(nStamp)) != sizeof(nStamp)) return 1;
      pOneWay[i] = static_cast<double>(now_ns() - nStamp) / 1000.0;
      if (write(toParent[1], &nStamp, sizeof(nStamp)) != sizeof(nStamp)) return 2;
    }
    return 0;
  });
  for (int i = 0; i < nRounds; ++i) {
    usleep(kPauseUs);
    int64 nStamp = now_ns();
    if (write(toChild[1], &nStamp, sizeof(nStamp)) != sizeof(nStamp)) abort();
    if (read(toParent[0], &nStamp, sizeof(nStamp)) != sizeof(nStamp)) abort();
    if (i >= kWarmRounds)
      pOut->halfRttUs.push_back(static_cast<double>(now_ns() - nStamp) / 2000.0);
  }
  end_child(c);
  for (int i = kWarmRounds; i < nRounds; ++i) pOut->oneWayUs.push_back(pOneWay[i]);
  munmap(pOneWay, sizeof(double) * static_cast<size_t>(nRounds));
  for (int fd : {toChild[0], toChild[1], toParent[0], toParent[1]}) close(fd);
}

// The bare mechanism under zdProcComm's wake-ups: two futex words in shared
// memory, no lock, no queue.
void futex_wait_word(std::atomic<uint32>* pWord, uint32 nOld) {
  while (pWord->load() == nOld)
    syscall(SYS_futex, reinterpret_cast<uint32*>(pWord), FUTEX_WAIT, nOld, nullptr, nullptr, 0);
}
void futex_wake_word(std::atomic<uint32>* pWord) {
  syscall(SYS_futex, reinterpret_cast<uint32*>(pWord), FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

void bench_futex(int nRounds, SLatency* pOut) {
  struct SWords {
    alignas(64) std::atomic<uint32> nTo;
    alignas(64) std::atomic<uint32> nBack;
    alignas(64) std::atomic<int64> nStamp;
  };
  SWords* w = new (shared_anon(4096)) SWords;
  double* pOneWay =
      static_cast<double*>(shared_anon(sizeof(double) * static_cast<size_t>(nRounds)));
  SChild c = start_child([&](auto ready) {
    ready();
    for (int i = 0; i < nRounds; ++i) {
      futex_wait_word(&w->nTo, static_cast<uint32>(i));
      pOneWay[i] = static_cast<double>(now_ns() - w->nStamp.load()) / 1000.0;
      w->nBack.fetch_add(1);
      futex_wake_word(&w->nBack);
    }
    return 0;
  });
  for (int i = 0; i < nRounds; ++i) {
    usleep(kPauseUs);
    int64 nStamp = now_ns();
    w->nStamp.store(nStamp);
    w->nTo.fetch_add(1);
    futex_wake_word(&w->nTo);
    futex_wait_word(&w->nBack, static_cast<uint32>(i));
    if (i >= kWarmRounds)
      pOut->halfRttUs.push_back(static_cast<double>(now_ns() - nStamp) / 2000.0);
  }
  end_child(c);
  for (int i = kWarmRounds; i < nRounds; ++i) pOut->oneWayUs.push_back(pOneWay[i]);
  munmap(pOneWay, sizeof(double) * static_cast<size_t>(nRounds));
  munmap(w, 4096);
}

void bench_proccomm_wake(int nRounds, SLatency* pOut) {
  ProcCommHandle h = nullptr;
  if (proccomm_init(g_szName.c_str(), kMemMb, kBlockSize, 1000, &h) != 0) abort();
  ProcCommQueueHandle hTo = nullptr, hBack = nullptr;
  if (proccomm_reg(h, 3, &hTo) != 0 || proccomm_reg(h, 4, &hBack) != 0) abort();
  double* pOneWay =
      static_cast<double*>(shared_anon(sizeof(double) * static_cast<size_t>(nRounds)));
  SChild c = start_child([&](auto ready) {
    ProcCommHandle hc = nullptr;
    ProcCommQueueHandle hIn = nullptr, hOut = nullptr;
    if (proccomm_init(g_szName.c_str(), kMemMb, kBlockSize, 1000, &hc) != 0) return 2;
    if (proccomm_reg(hc, 3, &hIn) != 0 || proccomm_reg(hc, 4, &hOut) != 0) return 3;
    ready();
    char buf[64];
    for (int i = 0; i < nRounds; ++i) {
      int32 nLen = sizeof(buf);
      if (proccomm_recv(hIn, buf, &nLen, 1, PROCCOMM_WAIT_FOREVER) != 0) return 4;
      int64 nStamp;
      memcpy(&nStamp, buf, sizeof(nStamp));
      pOneWay[i] = static_cast<double>(now_ns() - nStamp) / 1000.0;
      if (proccomm_send(hOut, buf, 64) != 0) return 5;
    }
    proccomm_unreg(hc, 3, hIn);
    proccomm_unreg(hc, 4, hOut);
    proccomm_release(hc);
    return 0;
  });
  char buf[64] = {};
  for (int i = 0; i < nRounds; ++i) {
    usleep(kPauseUs);
    int64 nStamp = now_ns();
    memcpy(buf, &nStamp, sizeof(nStamp));
    if (proccomm_send(hTo, buf, 64) != 0) abort();
    int32 nLen = sizeof(buf);
    if (proccomm_recv(hBack, buf, &nLen, 1, PROCCOMM_WAIT_FOREVER) != 0) abort();
    if (i >= kWarmRounds)
      pOut->halfRttUs.push_back(static_cast<double>(now_ns() - nStamp) / 2000.0);
  }
  end_child(c);
  for (int i = kWarmRounds; i < nRounds; ++i) pOut->oneWayUs.push_back(pOneWay[i]);
  munmap(pOneWay, sizeof(double) * static_cast<size_t>(nRounds));
  proccomm_unreg(h, 3, hTo);
  proccomm_unreg(h, 4, hBack);
  proccomm_release(h);
}

}  // namespace

int main(int argc, char** argv) {
  int nRuns = 5;
  double fScale = 1.0;
  int32 nOnly = 0;  // --only SIZE: one throughput row, no latency table
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--runs") == 0) nRuns = std::max(1, atoi(argv[i + 1]));
    if (strcmp(argv[i], "--scale") == 0) fScale = std::max(0.001, atof(argv[i + 1]));
    if (strcmp(argv[i], "--only") == 0) nOnly = atoi(argv[i + 1]);
    if (strcmp(argv[i], "--retry-us") == 0) g_nRetryUs = std::max(0, atoi(argv[i + 1]));
    if (strcmp(argv[i], "--small-mb") == 0) g_nSmallMb = std::max(2, atoi(argv[i + 1]));
  }
  g_nSmallRingBytes = static_cast<size_t>(g_nSmallMb) << 20;
  g_szName = "bench_" + std::to_string(getpid());
  signal(SIGPIPE, SIG_IGN);

  struct SCase {
    int32 nSize;
    int64 nMsgs;
  };
  const SCase kCases[] = {{64, 1000000}, {4096, 200000}, {65536, 12000}, {1048576, 800}};

  printf("zdProcComm two-process benchmark: %d runs, medians; blocks of %d B\n\n", nRuns,
         kBlockSize);
  printf(
      "| size | messages | memory MiB | ring msg/s | ring GB/s | proccomm msg/s | proccomm GB/s | "
      "ratio | refused sends |\n");
  printf("|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const SCase& c : kCases) {
    if (nOnly != 0 && c.nSize != nOnly) continue;
    int64 nMsgs = std::max<int64>(10, static_cast<int64>(static_cast<double>(c.nMsgs) * fScale));
    for (int32 nMb : {g_nSmallMb, kMemMb}) {
      std::vector<double> ringMsgs, ringGB, pcMsgs, pcGB, ratios;
      uint64 nRefused = 0;
      for (int r = 0; r < nRuns; ++r) {
        // Alternate the order so that neither side always runs on a warmer machine.
        SRate a, b;
        if (r % 2 == 0) {
          a = bench_ring(c.nSize, nMsgs, static_cast<size_t>(nMb) << 20);
          b = bench_proccomm(c.nSize, nMsgs, nMb, &nRefused);
        } else {
          b = bench_proccomm(c.nSize, nMsgs, nMb, &nRefused);
          a = bench_ring(c.nSize, nMsgs, static_cast<size_t>(nMb) << 20);
        }
        ringMsgs.push_back(a.fMsgPerSec);
        ringGB.push_back(a.fGBPerSec);
        pcMsgs.push_back(b.fMsgPerSec);
        pcGB.push_back(b.fGBPerSec);
        ratios.push_back(b.fMsgPerSec / a.fMsgPerSec);
      }
      printf("| %d | %lld | %d | %.0f | %.2f | %.0f | %.2f | %.2f | %llu |\n", c.nSize,
             static_cast<long long>(nMsgs), nMb, median(ringMsgs), median(ringGB), median(pcMsgs),
             median(pcGB), median(ratios), static_cast<unsigned long long>(nRefused));
      fflush(stdout);
    }
  }

  if (nOnly != 0) return 0;
  const int nRounds = std::max(50, static_cast<int>(2000 * fScale));
  std::vector<double> pipeOneMed, pipeOneP99, pipeHalfMed, pipeHalfP99, pcOneMed, pcOneP99,
      pcHalfMed, pcHalfP99, ratioOne, ratioHalf, fxOneMed, fxOneP99, fxHalfMed, fxHalfP99;
  for (int r = 0; r < nRuns; ++r) {
    SLatency p, q, f;
    // Rotate the order so that none always runs first.
    for (int k = 0; k < 3; ++k) {
      switch ((r + k) % 3) {
        case 0:
          bench_pipe(nRounds + kWarmRounds, &p);
          break;
        case 1:
          bench_proccomm_wake(nRounds + kWarmRounds, &q);
          break;
        default:
          bench_futex(nRounds + kWarmRounds, &f);
          break;
      }
    }
    fxOneMed.push_back(median(f.oneWayUs));
    fxOneP99.push_back(percentile(f.oneWayUs, 0.99));
    fxHalfMed.push_back(median(f.halfRttUs));
    fxHalfP99.push_back(percentile(f.halfRttUs, 0.99));
    pipeOneMed.push_back(median(p.oneWayUs));
    pipeOneP99.push_back(percentile(p.oneWayUs, 0.99));
    pipeHalfMed.push_back(median(p.halfRttUs));
    pipeHalfP99.push_back(percentile(p.halfRttUs, 0.99));
    pcOneMed.push_back(median(q.oneWayUs));
    pcOneP99.push_back(percentile(q.oneWayUs, 0.99));
    pcHalfMed.push_back(median(q.halfRttUs));
    pcHalfP99.push_back(percentile(q.halfRttUs, 0.99));
    ratioOne.push_back(median(q.oneWayUs) / median(p.halfRttUs));
    ratioHalf.push_back(median(q.halfRttUs) / median(p.halfRttUs));
  }
  printf(
      "\nWake-up of a receiver asleep in a blocking receive, %d rounds per run after %d warm-up "
      "rounds, %d us pause between rounds (us)\n\n",
      nRounds, kWarmRounds, kPauseUs);
  printf(
      "| measure | pipe median | pipe p99 | bare futex median | bare futex p99 | proccomm median | "
      "proccomm p99 | proccomm median / pipe half round trip |\n");
  printf("|---|---:|---:|---:|---:|---:|---:|---:|\n");
  printf(
      "| one-way (stamp to receiver running) | %.1f | %.1f | %.1f | %.1f | %.1f | %.1f | %.2f |\n",
      median(pipeOneMed), median(pipeOneP99), median(fxOneMed), median(fxOneP99), median(pcOneMed),
      median(pcOneP99), median(ratioOne));
  printf("| half round trip | %.1f | %.1f | %.1f | %.1f | %.1f | %.1f | %.2f |\n",
         median(pipeHalfMed), median(pipeHalfP99), median(fxHalfMed), median(fxHalfP99),
         median(pcHalfMed), median(pcHalfP99), median(ratioHalf));
  return 0;
}
