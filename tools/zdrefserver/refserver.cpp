#include "refserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "zdorlo_api.h"
#include "zdorlo_wire.h"

using namespace zdorlo;

namespace {

// Largest tag range one fail-tags command may name, to keep it a small list.
constexpr uint64 kMaxFailTags = 1000000;

bool recv_all(int fd, uint8* p, size_t n) {
  while (n > 0) {
    const ssize_t k = recv(fd, p, n, 0);
    if (k > 0) {
      p += k;
      n -= static_cast<size_t>(k);
    } else if (k == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool send_all(int fd, const uint8* p, size_t n) {
  while (n > 0) {
    const ssize_t k = send(fd, p, n, MSG_NOSIGNAL);
    if (k > 0) {
      p += k;
      n -= static_cast<size_t>(k);
    } else if (k == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

// Binds a listening TCP socket on szAddress:nPort; returns the socket and
// the bound port, or -1 with errno kept.
int listen_on(const char* szAddress, uint16 nPort, uint16* pnBound) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(nPort);
  if (inet_pton(AF_INET, szAddress, &addr.sin_addr) != 1) {
    errno = EINVAL;
    return -1;
  }
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const int nOne = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &nOne, sizeof(nOne));
  socklen_t nLen = sizeof(addr);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 64) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &nLen) != 0) {
    const int nErr = errno;
    close(fd);
    errno = nErr;
    return -1;
  }
  *pnBound = ntohs(addr.sin_port);
  return fd;
}

}  // namespace

bool refserver_parse_u64(const std::string& s, uint64* pn) {
  if (s.empty() || s.size() > 19 || s.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *pn = std::strtoull(s.c_str(), nullptr, 10);
  return true;
}

namespace {

// "N" or "N:CODE"; the code must be a positive int32, nDefault when absent.
bool parse_count_code(const std::string& s, uint32* pnCount, int32* pnCode, int32 nDefault) {
  const size_t nColon = s.find(':');
  *pnCode = nDefault;
  uint64 n = 0;
  if (!refserver_parse_u64(s.substr(0, nColon), &n) || n > 0xffffffffull) return false;
  if (nColon != std::string::npos) {
    uint64 c = 0;
    if (!refserver_parse_u64(s.substr(nColon + 1), &c) || c == 0 || c > 0x7fffffffull) return false;
    *pnCode = static_cast<int32>(c);
  }
  *pnCount = static_cast<uint32>(n);
  return true;
}

}  // namespace

// "5,7,10-20" into a sorted list of tag ids.
bool refserver_parse_tag_list(const std::string& s, std::vector<uint32>* pv) {
  pv->clear();
  std::stringstream ss(s);
  std::string strItem;
  while (std::getline(ss, strItem, ',')) {
    const size_t nDash = strItem.find('-');
    uint64 a = 0, b = 0;
    if (!refserver_parse_u64(strItem.substr(0, nDash), &a)) return false;
    b = a;
    if (nDash != std::string::npos && !refserver_parse_u64(strItem.substr(nDash + 1), &b))
      return false;
    if (a > b || b > 0xffffffffull || pv->size() + (b - a + 1) > kMaxFailTags) return false;
    for (uint64 t = a; t <= b; ++t) pv->push_back(static_cast<uint32>(t));
  }
  std::sort(pv->begin(), pv->end());
  pv->erase(std::unique(pv->begin(), pv->end()), pv->end());
  return !pv->empty();
}

namespace {

std::string describe(const SRefFaults& f) {
  std::ostringstream os;
  os << "refuse-connections=" << (f.bRefuseConnections ? "on" : "off")
     << " refuse-logins=" << (f.bRefuseLogins ? "on" : "off") << " fail-every=" << f.nFailEvery
     << ":" << f.nFailCode << " fail-tags=" << f.vFailTags.size() << ":" << f.nTagFailCode
     << " delay=" << f.nDelayMs << " close-every=" << f.nCloseEvery;
  return os.str();
}

}  // namespace

struct CRefServer::SSession {
  int hSocket = -1;
  bool bHello = false;
  bool bLoggedIn = false;
  std::vector<uint8> vFrame;        // request being served, reused
  std::vector<SWireRecord> vRecs;   // decoded records of a save
  std::vector<SWireRecord> vStore;  // the ones to store
  std::vector<uint8> vReply;        // reply being built, reused
};

int32 CRefServer::Start(const SRefServerConfig& config) {
  Stop();
  m_config = config;
  {
    std::lock_guard<std::mutex> lock(m_mtxFaults);
    m_faults = config.faults;
  }
  m_bStop = false;
  for (auto* p :
       {&m_nConnections, &m_nLogins, &m_nLoginsRefused, &m_nSaves, &m_nRecords, &m_nFaults}) {
    *p = 0;
  }
  int32 nRet = m_store.Open(config.strDbPath.c_str(), config.bTruncate);
  if (nRet != 0) return nRet;
  m_hListen = listen_on(config.strListen.c_str(), config.nPort, &m_nPort);
  if (m_hListen < 0) nRet = errno;
  if (nRet == 0 && config.nControlPort >= 0) {
    m_hControl = listen_on("127.0.0.1", static_cast<uint16>(config.nControlPort), &m_nControlPort);
    if (m_hControl < 0) nRet = errno;
  }
  if (nRet == 0 && pipe2(m_hWake, O_CLOEXEC) != 0) nRet = errno;
  if (nRet != 0) {
    spdlog::error("cannot listen on {}:{}: {}", config.strListen, config.nPort,
                  std::strerror(nRet));
    m_bStarted = true;
    Stop();
    return nRet;
  }
  m_bStarted = true;
  m_acceptThread = std::thread([this] { AcceptLoop(); });
  spdlog::info("listening on {}:{}{}", config.strListen, m_nPort,
               config.strDbPath.empty() ? " (counting only)" : ", storing in " + config.strDbPath);
  return 0;
}

void CRefServer::Stop() {
  if (!m_bStarted) return;
  m_bStop = true;
  if (m_hWake[1] >= 0) {
    const char c = 'q';
    [[maybe_unused]] ssize_t n = write(m_hWake[1], &c, 1);
  }
  if (m_acceptThread.joinable()) m_acceptThread.join();
  for (int* p : {&m_hListen, &m_hControl, &m_hWake[0], &m_hWake[1]}) {
    if (*p >= 0) close(*p);
    *p = -1;
  }
  ReapConnections(true);
  m_store.Close();
  m_bStarted = false;
  spdlog::info("stopped");
}

void CRefServer::ReapConnections(bool bAll) {
  std::list<std::unique_ptr<SConn>> done;
  {
    std::lock_guard<std::mutex> lock(m_mtxConns);
    for (auto it = m_conns.begin(); it != m_conns.end();) {
      if (bAll) shutdown((*it)->hSocket, SHUT_RDWR);  // wakes a blocked recv
      if (bAll || (*it)->bDone) {
        done.splice(done.end(), m_conns, it++);
      } else {
        ++it;
      }
    }
  }
  // The socket is closed only after its thread ended, so no descriptor is
  // reused under a running thread.
  for (auto& p : done) {
    p->thread.join();
    close(p->hSocket);
  }
}

void CRefServer::AcceptLoop() {
  while (!m_bStop) {
    pollfd pfd[3] = {{m_hListen, POLLIN, 0}, {m_hWake[0], POLLIN, 0}, {m_hControl, POLLIN, 0}};
    const int n = poll(pfd, m_hControl >= 0 ? 3 : 2, 1000);
    ReapConnections(false);
    if (n <= 0 || m_bStop) continue;
    for (int k : {0, 2}) {
      if (k == 2 && m_hControl < 0) continue;
      if ((pfd[k].revents & POLLIN) == 0) continue;
      const int fd = accept4(pfd[k].fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      if (k == 0 && Faults().bRefuseConnections) {
        // Reset rather than close, so the client sees a refusal at once.
        linger lg{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
        close(fd);
        m_nFaults++;
        spdlog::info("connection refused (fault)");
        continue;
      }
      auto pConn = std::make_unique<SConn>();
      pConn->hSocket = fd;
      pConn->bControl = k == 2;
      SConn* p = pConn.get();
      std::lock_guard<std::mutex> lock(m_mtxConns);
      if (k == 0) {
        const int nOne = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
        m_nConnections++;
        p->thread = std::thread([this, p] { ServeData(p); });
      } else {
        p->thread = std::thread([this, p] { ServeControl(p); });
      }
      m_conns.push_back(std::move(pConn));
    }
  }
}

// Sleeps nMs in small steps; false when the server is stopping.
bool CRefServer::Sleep(uint32 nMs) {
  const auto tpEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nMs);
  while (!m_bStop && std::chrono::steady_clock::now() < tpEnd) {
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min<uint32>(nMs, 10)));
  }
  return !m_bStop;
}

SRefFaults CRefServer::Faults() const {
  std::lock_guard<std::mutex> lock(m_mtxFaults);
  return m_faults;
}

SRefStats CRefServer::Stats() const {
  SRefStats s;
  s.nConnections = m_nConnections;
  s.nLogins = m_nLogins;
  s.nLoginsRefused = m_nLoginsRefused;
  s.nSaves = m_nSaves;
  s.nRecords = m_nRecords;
  s.nStored = m_store.StoredCount();
  s.nFaults = m_nFaults;
  return s;
}

void CRefServer::ServeData(SConn* pConn) {
  SSession s;
  s.hSocket = pConn->hSocket;
  uint8 aHeader[kFrameHeaderSize];
  while (!m_bStop && recv_all(s.hSocket, aHeader, sizeof(aHeader))) {
    const SFrameHeader h = wire_get_header(aHeader);
    if (h.nLength < kFrameHeaderSize || h.nLength > kMaxFrameSize) {
      spdlog::warn("frame length {} out of bounds, closing", h.nLength);
      break;
    }
    const size_t nBody = h.nLength - kFrameHeaderSize;
    if (s.vFrame.size() < nBody) s.vFrame.resize(nBody);
    if (!recv_all(s.hSocket, s.vFrame.data(), nBody)) break;
    const uint8* b = s.vFrame.data();

    // Replies are built in s.vReply: header, then body.
    s.vReply.resize(kFrameHeaderSize);
    auto reply_status = [&s](int32 nStatus) {
      const size_t n = s.vReply.size();
      s.vReply.resize(n + 4);
      put_u32(s.vReply.data() + n, static_cast<uint32>(nStatus));
    };

    if (!s.bHello) {
      if (h.nType != kWireHello || nBody < 8 || get_u32(b) != kWireMagic) {
        spdlog::warn("no greeting, closing");
        break;
      }
      const bool bVersionOk = get_u16(b + 4) == kWireVersion;
      reply_status(bVersionOk ? 0 : ZD3_E_VERSION);
      s.vReply.resize(kFrameHeaderSize + 12);
      put_u16(s.vReply.data() + kFrameHeaderSize + 4, kWireVersion);
      put_u16(s.vReply.data() + kFrameHeaderSize + 6, 0);
      put_u32(s.vReply.data() + kFrameHeaderSize + 8, kMaxFrameSize);
      if (!bVersionOk) spdlog::warn("client speaks version {}", get_u16(b + 4));
      s.bHello = bVersionOk;
    } else if (h.nType == kWireLogin) {
      int32 nStatus = ZD3_E_BAD_REQUEST;
      if (nBody >= 2) {
        const size_t nUser = get_u16(b);
        if (nUser <= kMaxLoginField && nBody >= 4 + nUser) {
          const size_t nPass = get_u16(b + 2 + nUser);
          if (nPass <= kMaxLoginField && nBody == 4 + nUser + nPass) {
            const std::string strUser(reinterpret_cast<const char*>(b + 2), nUser);
            const std::string strPass(reinterpret_cast<const char*>(b + 4 + nUser), nPass);
            const auto it = m_config.mapUsers.find(strUser);
            const bool bOk = !Faults().bRefuseLogins &&
                             (m_config.mapUsers.empty() ||
                              (it != m_config.mapUsers.end() && it->second == strPass));
            nStatus = bOk ? 0 : ZD3_E_LOGIN_REFUSED;
            s.bLoggedIn = bOk;
            (bOk ? m_nLogins : m_nLoginsRefused)++;
            spdlog::info("login of '{}' {}", strUser, bOk ? "accepted" : "refused");
          }
        }
      }
      reply_status(nStatus);
    } else if (h.nType == kWireSave) {
      if (!HandleSave(s, b, nBody, h.nRequestId)) break;
    } else {
      spdlog::warn("unknown message type {}, closing", h.nType);
      break;
    }

    const uint32 nDelay = Faults().nDelayMs;
    if (nDelay > 0 && !Sleep(nDelay)) break;
    wire_put_header(s.vReply.data(),
                    SFrameHeader{static_cast<uint32>(s.vReply.size()),
                                 static_cast<uint16>(h.nType | kWireReplyBit), 0, h.nRequestId});
    if (!send_all(s.hSocket, s.vReply.data(), s.vReply.size())) break;
    if (!s.bHello) break;  // wrong version: answered, then closed
  }
  // The peer sees the end now; the descriptor is closed when reaped.
  shutdown(s.hSocket, SHUT_RDWR);
  pConn->bDone = true;
}

// Builds the reply to one save in s.vReply (after its header). Returns false
// when the connection must be closed without an answer.
bool CRefServer::HandleSave(SSession& s, const uint8* pBody, size_t nBody, uint32 nId) {
  auto reply = [&s](int32 nStatus, size_t nFailed) {
    s.vReply.resize(kFrameHeaderSize + 8 + 8 * nFailed);
    put_u32(s.vReply.data() + kFrameHeaderSize, static_cast<uint32>(nStatus));
    put_u32(s.vReply.data() + kFrameHeaderSize + 4, static_cast<uint32>(nFailed));
  };
  if (!m_config.mapUsers.empty() && !s.bLoggedIn) {
    reply(ZD3_E_NOT_LOGGED_IN, 0);
    return true;
  }
  // Decode every record before acting on any: a malformed request is
  // refused whole.
  const uint32 nCount = nBody >= 4 ? get_u32(pBody) : 0;
  bool bOk = nBody >= 4 && nCount >= 1 && nCount <= kMaxSaveCount &&
             nCount <= (nBody - 4) / kRecordFixedSize;
  if (bOk) {
    s.vRecs.resize(nCount);
    size_t nPos = 4;
    for (uint32 i = 0; i < nCount && bOk; ++i) {
      const size_t nUsed = wire_get_record(pBody + nPos, nBody - nPos, &s.vRecs[i]);
      bOk = nUsed > 0;
      nPos += nUsed;
    }
    bOk = bOk && nPos == nBody;
  }
  if (!bOk) {
    spdlog::warn("malformed save request {} ({} bytes)", nId, nBody);
    reply(ZD3_E_BAD_REQUEST, 0);
    return true;
  }
  const uint64 nSave = ++m_nSaves;
  m_nRecords += nCount;
  const SRefFaults f = Faults();
  if (f.nCloseEvery > 0 && nSave % f.nCloseEvery == 0) {
    m_nFaults++;
    spdlog::info("save {}: closing the connection (fault)", nSave);
    return false;
  }
  if (f.nFailEvery > 0 && nSave % f.nFailEvery == 0) {
    m_nFaults++;
    spdlog::info("save {}: answering {} (fault)", nSave, f.nFailCode);
    reply(f.nFailCode, 0);
    return true;
  }
  const std::vector<SWireRecord>* pStore = &s.vRecs;
  size_t nFailed = 0;
  if (!f.vFailTags.empty()) {
    s.vStore.clear();
    for (const SWireRecord& r : s.vRecs) {
      if (std::binary_search(f.vFailTags.begin(), f.vFailTags.end(), r.nTag)) {
        ++nFailed;
      } else {
        s.vStore.push_back(r);
      }
    }
    pStore = &s.vStore;
  }
  const int32 nRet = m_store.Save(pStore->data(), pStore->size());
  if (nRet != 0) {
    reply(nRet, 0);
    return true;
  }
  if (nFailed == 0) {
    reply(0, 0);
    return true;
  }
  m_nFaults++;
  reply(ZD3_E_SOME_RECORDS_FAILED, nFailed);
  uint8* p = s.vReply.data() + kFrameHeaderSize + 8;
  for (uint32 i = 0; i < nCount; ++i) {
    if (std::binary_search(f.vFailTags.begin(), f.vFailTags.end(), s.vRecs[i].nTag)) {
      put_u32(p, i);
      put_u32(p + 4, static_cast<uint32>(f.nTagFailCode));
      p += 8;
    }
  }
  return true;
}

void CRefServer::ServeControl(SConn* pConn) {
  std::string strPending;
  char aBuf[512];
  while (!m_bStop) {
    const ssize_t n = recv(pConn->hSocket, aBuf, sizeof(aBuf), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    strPending.append(aBuf, static_cast<size_t>(n));
    if (strPending.size() > 64 * 1024) break;  // no line is that long
    size_t nEol;
    while ((nEol = strPending.find('\n')) != std::string::npos) {
      const std::string strReply = Control(strPending.substr(0, nEol)) + "\n";
      strPending.erase(0, nEol + 1);
      if (!send_all(pConn->hSocket, reinterpret_cast<const uint8*>(strReply.data()),
                    strReply.size())) {
        break;
      }
    }
  }
  shutdown(pConn->hSocket, SHUT_RDWR);
  pConn->bDone = true;
}

std::string CRefServer::Control(const std::string& strLine) {
  std::istringstream is(strLine);
  std::string strCmd, strArg, strExtra;
  is >> strCmd >> strArg >> strExtra;
  if (!strExtra.empty()) return "error too many arguments";
  if (strCmd == "ping") return "ok";
  if (strCmd == "stats") {
    const SRefStats st = Stats();
    std::ostringstream os;
    os << "ok connections=" << st.nConnections << " logins=" << st.nLogins
       << " logins_refused=" << st.nLoginsRefused << " saves=" << st.nSaves
       << " records=" << st.nRecords << " stored=" << st.nStored << " faults=" << st.nFaults;
    return os.str();
  }
  std::lock_guard<std::mutex> lock(m_mtxFaults);
  SRefFaults& f = m_faults;
  bool bOk = true;
  if (strCmd == "faults") {
    return "ok " + describe(f);
  } else if (strCmd == "reset") {
    f = SRefFaults{};
  } else if (strCmd == "refuse-connections" || strCmd == "refuse-logins") {
    bool& b = strCmd == "refuse-connections" ? f.bRefuseConnections : f.bRefuseLogins;
    bOk = strArg == "on" || strArg == "off";
    if (bOk) b = strArg == "on";
  } else if (strCmd == "fail-every") {
    uint32 nEvery = 0;
    int32 nCode = 0;
    bOk = parse_count_code(strArg, &nEvery, &nCode, ZD3_E_SERVER_BUSY);
    if (bOk) {
      f.nFailEvery = nEvery;
      f.nFailCode = nCode;
    }
  } else if (strCmd == "close-every") {
    uint64 n = 0;
    bOk = refserver_parse_u64(strArg, &n) && n <= 0xffffffffull;
    if (bOk) f.nCloseEvery = static_cast<uint32>(n);
  } else if (strCmd == "delay") {
    uint64 n = 0;
    bOk = refserver_parse_u64(strArg, &n) && n <= 3600000;
    if (bOk) f.nDelayMs = static_cast<uint32>(n);
  } else if (strCmd == "fail-tags") {
    if (strArg == "off") {
      f.vFailTags.clear();
    } else {
      const size_t nColon = strArg.find(':');
      std::vector<uint32> v;
      uint32 nDummy = 0;
      int32 nCode = 0;
      bOk = refserver_parse_tag_list(strArg.substr(0, nColon), &v) &&
            parse_count_code(nColon == std::string::npos ? "0" : "0" + strArg.substr(nColon),
                             &nDummy, &nCode, ZD3_E_RECORD_TIMEOUT);
      if (bOk) {
        f.vFailTags = std::move(v);
        f.nTagFailCode = nCode;
      }
    }
  } else {
    return "error unknown command '" + strCmd + "'";
  }
  if (!bOk) return "error bad argument '" + strArg + "' for " + strCmd;
  spdlog::info("control: {} -> {}", strLine, describe(f));
  return "ok " + describe(f);
}
