// orlo_bench: records per second through sn3_save_tags_disorder_snapshots
// for batches of 1, 100 and 40,000 int32 records, into the counting server
// and the SQLite server, and the round-trip time of a one-record save.
//
// Baselines measured in the same run, on the same sockets and cores:
//   wire floor  a server thread that reads each frame and answers "saved"
//               without decoding it: what loopback TCP and the framing cost
//   sqlite raw  the same rows inserted by the store directly, no network
//   ping-pong   a 12-byte request and a 20-byte answer on a raw socket
// Every figure is the median of --runs runs (default 5).
//
// Usage: orlo_bench [--runs N] [--seconds S] [--dir DIR]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "refserver.h"
#include "refstore.h"
#include "zdorlo_api.h"
#include "zdorlo_wire.h"

using namespace zdorlo;
using Clock = std::chrono::steady_clock;

namespace {

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// A server that answers every frame after the greeting with a fixed
// "saved" reply, without looking at the records.
class CWireFloorServer {
 public:
  CWireFloorServer() {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof(a);
    bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    listen(m_fd, 16);
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &n);
    m_nPort = ntohs(a.sin_port);
    m_thread = std::thread([this] { Run(); });
  }
  ~CWireFloorServer() {
    shutdown(m_fd, SHUT_RDWR);
    m_thread.join();
    close(m_fd);
  }
  CWireFloorServer(const CWireFloorServer&) = delete;
  CWireFloorServer& operator=(const CWireFloorServer&) = delete;
  uint16 Port() const { return m_nPort; }

 private:
  void Run() {
    for (;;) {
      const int c = accept(m_fd, nullptr, nullptr);
      if (c < 0) return;
      const int nOne = 1;
      setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
      std::vector<uint8> body;
      uint8 h[kFrameHeaderSize];
      while (recv(c, h, sizeof(h), MSG_WAITALL) == sizeof(h)) {
        const SFrameHeader hdr = wire_get_header(h);
        if (hdr.nLength < kFrameHeaderSize || hdr.nLength > kMaxFrameSize) break;
        body.resize(hdr.nLength - kFrameHeaderSize);
        if (!body.empty() && recv(c, body.data(), body.size(), MSG_WAITALL) <= 0) break;
        uint8 r[kFrameHeaderSize + 12] = {};
        const uint32 nLen = hdr.nType == kWireHello ? 24 : 20;
        wire_put_header(r, SFrameHeader{nLen, static_cast<uint16>(hdr.nType | kWireReplyBit), 0,
                                        hdr.nRequestId});
        if (hdr.nType == kWireHello) put_u16(r + 16, kWireVersion);
        send(c, r, nLen, MSG_NOSIGNAL);
      }
      close(c);
    }
  }
  int m_fd = -1;
  uint16 m_nPort = 0;
  std::thread m_thread;
};

struct SBatch {
  std::vector<uint32> vIds;
  std::vector<ZD3Record> vRecs;
  std::vector<int32> vErrs;
};

SBatch make_batch(int32 n) {
  SBatch b;
  b.vIds.resize(n);
  b.vRecs.resize(n);
  b.vErrs.resize(n);
  for (int32 i = 0; i < n; ++i) {
    b.vIds[i] = static_cast<uint32>(i % 1000);
    std::memset(&b.vRecs[i], 0, sizeof(ZD3Record));
    b.vRecs[i].nSec = 1700000000 + i;
    b.vRecs[i].nQuality = 192;
    b.vRecs[i].nTagType = ZD3_TAG_TYPE_INT32;
    b.vRecs[i].value.nInt32 = i;
  }
  return b;
}

bool connect_to(uint16 nPort) {
  ZD3Connection c{};
  std::strcpy(c.szAddress, "127.0.0.1");
  c.nPort = nPort;
  c.nTimeout = 5;
  return nt3_connect(&c) == 0;
}

// Records per second of repeated saves of batch b for about fSeconds.
double run_saves(SBatch& b, double fSeconds) {
  const int32 n = static_cast<int32>(b.vIds.size());
  uint64 nRecords = 0;
  const auto t0 = Clock::now();
  const auto tEnd = t0 + std::chrono::duration<double>(fSeconds);
  do {
    for (int k = 0; k < 16; ++k) {
      if (sn3_save_tags_disorder_snapshots(n, b.vIds.data(), b.vRecs.data(), b.vErrs.data()) != 0) {
        std::fprintf(stderr, "save failed\n");
        std::exit(1);
      }
      nRecords += static_cast<uint64>(n);
    }
  } while (Clock::now() < tEnd);
  return nRecords / std::chrono::duration<double>(Clock::now() - t0).count();
}

// Median round trip of one-record saves, in microseconds.
double run_rtt(int nCalls) {
  SBatch b = make_batch(1);
  std::vector<double> v;
  for (int i = 0; i < nCalls; ++i) {
    const auto t0 = Clock::now();
    sn3_save_tags_disorder_snapshots(1, b.vIds.data(), b.vRecs.data(), b.vErrs.data());
    v.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  return median(v);
}

// Median raw ping-pong on a socket to the wire-floor server, microseconds.
double run_ping_pong(uint16 nPort, int nCalls) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(nPort);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int nOne = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) return 0;
  std::vector<double> v;
  uint8 q[kFrameHeaderSize], r[20];
  for (int i = 0; i < nCalls; ++i) {
    wire_put_header(q, SFrameHeader{12, kWireSave, 0, static_cast<uint32>(i)});
    const auto t0 = Clock::now();
    send(fd, q, sizeof(q), MSG_NOSIGNAL);
    recv(fd, r, sizeof(r), MSG_WAITALL);
    v.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  close(fd);
  return median(v);
}

// Rows per second inserted by the store directly (no network).
double run_sqlite_raw(const std::string& strDb, int32 nBatch, double fSeconds) {
  CRefStore store;
  if (store.Open(strDb.c_str(), true) != 0) return 0;
  std::vector<SWireRecord> v(nBatch);
  for (int32 i = 0; i < nBatch; ++i) {
    v[i] = SWireRecord{};
    v[i].nTag = static_cast<uint32>(i % 1000);
    v[i].nSec = 1700000000 + i;
    v[i].nQuality = 192;
    v[i].nType = ZD3_TAG_TYPE_INT32;
    v[i].nInt = i;
  }
  uint64 n = 0;
  const auto t0 = Clock::now();
  const auto tEnd = t0 + std::chrono::duration<double>(fSeconds);
  do {
    store.Save(v.data(), v.size());
    n += v.size();
  } while (Clock::now() < tEnd);
  return n / std::chrono::duration<double>(Clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
  int nRuns = 5;
  double fSeconds = 0.4;
  std::string strDir = "/tmp";
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--runs")) nRuns = std::max(1, std::atoi(argv[i + 1]));
    if (!std::strcmp(argv[i], "--seconds")) fSeconds = std::atof(argv[i + 1]);
    if (!std::strcmp(argv[i], "--dir")) strDir = argv[i + 1];
  }
  spdlog::set_level(spdlog::level::warn);
  const std::string strDb = strDir + "/orlo_bench_" + std::to_string(getpid()) + ".db";
  ut3_set_request_timeout(60);

  CWireFloorServer floor;
  CRefServer counting;
  SRefServerConfig cfg;
  if (counting.Start(cfg) != 0) return 1;
  CRefServer sqlite;
  cfg.strDbPath = strDb;
  cfg.bTruncate = true;
  if (sqlite.Start(cfg) != 0) return 1;

  struct SRow {
    const char* szTarget;
    uint16 nPort;
  };
  const SRow aTargets[] = {
      {"wire floor", floor.Port()}, {"counting", counting.Port()}, {"sqlite", sqlite.Port()}};
  const int32 aBatches[] = {1, 100, 40000};
  double aMedian[3][3] = {};
  for (int b = 0; b < 3; ++b) {
    SBatch batch = make_batch(aBatches[b]);
    std::vector<double> v[3];
    for (int r = 0; r < nRuns; ++r) {
      // Interleave the targets run by run so that noise from other work on
      // the machine falls on all of them alike.
      for (int t = 0; t < 3; ++t) {
        if (!connect_to(aTargets[t].nPort)) return 1;
        v[t].push_back(run_saves(batch, fSeconds));
        nt3_disconnect();
      }
    }
    for (int t = 0; t < 3; ++t) aMedian[t][b] = median(v[t]);
  }
  std::vector<double> vRaw;
  for (int r = 0; r < nRuns; ++r) vRaw.push_back(run_sqlite_raw(strDb + ".raw", 40000, fSeconds));
  const double fRaw = median(vRaw);

  std::vector<double> vRtt[2], vPing;
  for (int r = 0; r < nRuns; ++r) {
    vPing.push_back(run_ping_pong(floor.Port(), 2000));
    for (int t = 1; t < 3; ++t) {
      if (!connect_to(aTargets[t].nPort)) return 1;
      vRtt[t - 1].push_back(run_rtt(2000));
      nt3_disconnect();
    }
  }

  std::printf("records per second, int32 records, median of %d runs of %.1f s\n\n", nRuns,
              fSeconds);
  std::printf("| target | batch 1 | batch 100 | batch 40,000 | 40,000 vs wire floor |\n");
  std::printf("|---|---:|---:|---:|---:|\n");
  for (int t = 0; t < 3; ++t) {
    std::printf("| %s | %.0f | %.0f | %.0f | %.2f |\n", aTargets[t].szTarget, aMedian[t][0],
                aMedian[t][1], aMedian[t][2], aMedian[t][2] / aMedian[0][2]);
  }
  std::printf("| sqlite raw inserts (no network), 40,000 a transaction | | | %.0f | |\n", fRaw);
  std::printf("\nsqlite server / raw inserts: %.2f\n", aMedian[2][2] / fRaw);
  std::printf("\nround trip of a one-record save, median of 2,000 calls, median of %d runs\n\n",
              nRuns);
  std::printf("| path | microseconds | vs ping-pong |\n|---|---:|---:|\n");
  const double fPing = median(vPing);
  std::printf("| raw ping-pong, 12-byte frame | %.1f | 1.00 |\n", fPing);
  std::printf("| save into counting server | %.1f | %.2f |\n", median(vRtt[0]),
              median(vRtt[0]) / fPing);
  std::printf("| save into sqlite server | %.1f | %.2f |\n", median(vRtt[1]),
              median(vRtt[1]) / fPing);

  counting.Stop();
  sqlite.Stop();
  for (const char* s : {"", "-wal", "-shm", ".raw", ".raw-wal", ".raw-shm"}) {
    unlink((strDb + s).c_str());
  }
  return 0;
}
