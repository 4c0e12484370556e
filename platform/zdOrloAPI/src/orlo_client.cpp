// The client library: one process-wide session over TCP, see zdorlo_api.h
// for the contract and zdorlo_wire.h for the frames.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "zdorlo_api.h"
#include "zdorlo_wire.h"

namespace {

using namespace zdorlo;
using Clock = std::chrono::steady_clock;

constexpr int32 kDefaultRequestTimeoutSec = 30;
constexpr int32 kMaxTimeoutSec = 86400;
constexpr size_t kInitialBufferSize = 64 * 1024;

// Milliseconds left until tpDeadline, rounded up, 0 when passed.
int remaining_ms(Clock::time_point tpDeadline) {
  const auto d = tpDeadline - Clock::now();
  if (d <= Clock::duration::zero()) return 0;
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(d).count();
  return ms > 0x7fffffff ? 0x7fffffff : static_cast<int>(ms);
}

// Waits for nEvents on fd until tpDeadline. Returns 1 when ready, 0 on
// timeout, -1 on a poll error.
int wait_fd(int fd, short nEvents, Clock::time_point tpDeadline) {
  for (;;) {
    const int nMs = remaining_ms(tpDeadline);
    pollfd pfd{fd, nEvents, 0};
    const int n = poll(&pfd, 1, nMs);
    if (n > 0) return 1;
    if (n == 0) {
      if (nMs == 0) return 0;
      continue;  // woke a little early: remaining_ms rounds up
    }
    if (errno != EINTR) return -1;
  }
}

// Writes all n bytes before tpDeadline. 0, ZD3_E_REQUEST_TIMEOUT or
// ZD3_E_CONNECTION_LOST.
int32 send_all(int fd, const uint8* p, size_t n, Clock::time_point tpDeadline) {
  while (n > 0) {
    const ssize_t k = send(fd, p, n, MSG_NOSIGNAL);
    if (k > 0) {
      p += k;
      n -= static_cast<size_t>(k);
      continue;
    }
    if (k < 0 && errno == EINTR) continue;
    if (k < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      const int w = wait_fd(fd, POLLOUT, tpDeadline);
      if (w == 0) return ZD3_E_REQUEST_TIMEOUT;
      if (w < 0) return ZD3_E_CONNECTION_LOST;
      continue;
    }
    return ZD3_E_CONNECTION_LOST;
  }
  return 0;
}

// Reads exactly n bytes before tpDeadline. 0, ZD3_E_REQUEST_TIMEOUT or
// ZD3_E_CONNECTION_LOST (end of stream included).
int32 recv_all(int fd, uint8* p, size_t n, Clock::time_point tpDeadline) {
  while (n > 0) {
    const ssize_t k = recv(fd, p, n, 0);
    if (k > 0) {
      p += k;
      n -= static_cast<size_t>(k);
      continue;
    }
    if (k == 0) return ZD3_E_CONNECTION_LOST;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      const int w = wait_fd(fd, POLLIN, tpDeadline);
      if (w == 0) return ZD3_E_REQUEST_TIMEOUT;
      if (w < 0) return ZD3_E_CONNECTION_LOST;
      continue;
    }
    return ZD3_E_CONNECTION_LOST;
  }
  return 0;
}

// Resolves an IPv4 address (dotted decimal, or a name through the resolver).
bool resolve_ipv4(const char* szAddress, uint16 nPort, sockaddr_in* pAddr) {
  std::memset(pAddr, 0, sizeof(*pAddr));
  pAddr->sin_family = AF_INET;
  pAddr->sin_port = htons(nPort);
  if (inet_pton(AF_INET, szAddress, &pAddr->sin_addr) == 1) return true;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* pList = nullptr;
  if (getaddrinfo(szAddress, nullptr, &hints, &pList) != 0 || pList == nullptr) return false;
  pAddr->sin_addr = reinterpret_cast<sockaddr_in*>(pList->ai_addr)->sin_addr;
  freeaddrinfo(pList);
  return true;
}

// A growable byte buffer that keeps its memory between calls, so the hot
// path touches no fresh pages once it has seen its largest request.
class CByteBuffer {
 public:
  CByteBuffer() = default;
  CByteBuffer(const CByteBuffer&) = delete;
  CByteBuffer& operator=(const CByteBuffer&) = delete;
  ~CByteBuffer() { std::free(m_pData); }

  // Makes room for nSize bytes; false when memory is short.
  bool Reserve(size_t nSize) {
    if (nSize <= m_nCapacity) return true;
    size_t nNew = m_nCapacity == 0 ? kInitialBufferSize : m_nCapacity;
    while (nNew < nSize) nNew *= 2;
    void* p = std::realloc(m_pData, nNew);
    if (p == nullptr) return false;
    m_pData = static_cast<uint8*>(p);
    m_nCapacity = nNew;
    return true;
  }
  uint8* Data() { return m_pData; }

 private:
  uint8* m_pData = nullptr;
  size_t m_nCapacity = 0;
};

class CSession {
 public:
  CSession() { std::memset(&m_conn, 0, sizeof(m_conn)); }
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  int32 Connect(const ZD3Connection* pConn);
  int32 Disconnect();
  int32 Login(const char* szUser, const char* szPassword);
  int32 SetOption(int32 nOption);
  int32 SetRequestTimeout(int32 nSeconds);
  int32 Save(int32 nCount, const uint32* pIds, const ZD3Record* pRecs, int32* pErrs);

 private:
  int32 OpenAny(Clock::time_point tpLimit);
  int32 OpenOne(const char* szAddress, uint16 nPort, Clock::time_point tpDeadline);
  int32 EnsureSession(Clock::time_point tpDeadline, bool bRelogin);
  int32 SendLogin(const char* szUser, const char* szPassword, Clock::time_point tpDeadline);
  int32 Exchange(uint16 nType, size_t nBodyLen, size_t nMaxReply, Clock::time_point tpDeadline);
  int32 EncodeSave(int32 nCount, const uint32* pIds, const ZD3Record* pRecs, size_t* pnBody);
  bool IsBroken() const;
  void CloseSocket();
  Clock::time_point RequestDeadline() const {
    return Clock::now() + std::chrono::seconds(m_nRequestTimeoutSec);
  }

  std::mutex m_mutex;
  int m_hSocket = -1;
  bool m_bHaveConn = false;  // m_conn holds the last successful nt3_connect
  ZD3Connection m_conn;
  bool m_bHaveLogin = false;  // m_szUser/m_szPassword hold the last successful login
  char m_szUser[kMaxLoginField + 1] = {};
  char m_szPassword[kMaxLoginField + 1] = {};
  int32 m_nRequestTimeoutSec = kDefaultRequestTimeoutSec;
  int32 m_nOption = ZD3_OPTION_AUTO_RECOVER;
  uint32 m_nNextRequestId = 1;
  CByteBuffer m_encode;  // request frame being built
  uint64 m_nEncodeUses = 0;  // greetings and logins built in m_encode since the start
  CByteBuffer m_reply;   // last reply frame
  size_t m_nReplyLen = 0;
};

void CSession::CloseSocket() {
  if (m_hSocket >= 0) {
    close(m_hSocket);
    m_hSocket = -1;
  }
}

// Between requests the server never sends anything, so a readable socket
// means end of stream, a reset, or garbage: in every case the session is
// no longer usable.
bool CSession::IsBroken() const {
  pollfd pfd{m_hSocket, static_cast<short>(POLLIN | POLLRDHUP), 0};
  const int n = poll(&pfd, 1, 0);
  return n > 0 || (n < 0 && errno != EINTR);
}

int32 CSession::OpenOne(const char* szAddress, uint16 nPort, Clock::time_point tpDeadline) {
  sockaddr_in addr;
  if (!resolve_ipv4(szAddress, nPort, &addr)) return ZD3_E_CONNECT_FAILED;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return ZD3_E_CONNECT_FAILED;
  const int nOne = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));

  int32 nRet = 0;
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    if (errno != EINPROGRESS) {
      nRet = ZD3_E_CONNECT_FAILED;
    } else {
      const int w = wait_fd(fd, POLLOUT, tpDeadline);
      int nErr = 0;
      socklen_t nErrLen = sizeof(nErr);
      if (w == 0) {
        nRet = ZD3_E_CONNECT_TIMEOUT;
      } else if (w < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &nErr, &nErrLen) != 0 || nErr != 0) {
        nRet = ZD3_E_CONNECT_FAILED;
      }
    }
  }
  if (nRet != 0) {
    close(fd);
    return nRet;
  }

  // Greeting, bounded by the same deadline as the TCP connect.
  m_hSocket = fd;
  if (!m_encode.Reserve(kFrameHeaderSize + 8)) {
    CloseSocket();
    return ZD3_E_NO_MEMORY;
  }
  ++m_nEncodeUses;
  uint8* p = m_encode.Data() + kFrameHeaderSize;
  put_u32(p, kWireMagic);
  put_u16(p + 4, kWireVersion);
  put_u16(p + 6, 0);
  nRet = Exchange(kWireHello, 8, kFrameHeaderSize + 64, tpDeadline);
  if (nRet == ZD3_E_REQUEST_TIMEOUT) return ZD3_E_CONNECT_TIMEOUT;
  if (nRet != 0) return nRet == ZD3_E_PROTOCOL ? ZD3_E_PROTOCOL : ZD3_E_CONNECT_FAILED;
  const uint8* r = m_reply.Data() + kFrameHeaderSize;
  if (m_nReplyLen < kFrameHeaderSize + 12) {
    CloseSocket();
    return ZD3_E_PROTOCOL;
  }
  const int32 nStatus = static_cast<int32>(get_u32(r));
  if (nStatus != 0 || get_u16(r + 4) != kWireVersion) {
    CloseSocket();
    return nStatus == 0 || nStatus == ZD3_E_VERSION ? ZD3_E_VERSION : ZD3_E_CONNECT_FAILED;
  }
  return 0;
}

// Primary, then backup. Each address gets the connection timeout, cut short
// by tpLimit.
int32 CSession::OpenAny(Clock::time_point tpLimit) {
  CloseSocket();
  const auto tpTimeout = std::chrono::seconds(m_conn.nTimeout);
  auto tpDeadline = std::min(Clock::now() + tpTimeout, tpLimit);
  int32 nRet = OpenOne(m_conn.szAddress, m_conn.nPort, tpDeadline);
  if (nRet == 0) return 0;
  if (m_conn.szBakAddress[0] != '\0' && m_conn.nBakPort != 0 && remaining_ms(tpLimit) > 0) {
    tpDeadline = std::min(Clock::now() + tpTimeout, tpLimit);
    const int32 nBak = OpenOne(m_conn.szBakAddress, m_conn.nBakPort, tpDeadline);
    if (nBak == 0) return 0;
    if (nRet != ZD3_E_CONNECT_TIMEOUT) nRet = nBak;
  }
  return nRet;
}

int32 CSession::EnsureSession(Clock::time_point tpDeadline, bool bRelogin) {
  if (m_hSocket >= 0) {
    if (!IsBroken()) return 0;
    CloseSocket();
  }
  if (!m_bHaveConn) return ZD3_E_NOT_CONNECTED;
  if ((m_nOption & ZD3_OPTION_AUTO_RECOVER) == 0) return ZD3_E_NOT_CONNECTED;
  int32 nRet = OpenAny(tpDeadline);
  if (nRet != 0 || !bRelogin || !m_bHaveLogin) return nRet;
  nRet = SendLogin(m_szUser, m_szPassword, tpDeadline);
  if (nRet == ZD3_E_LOGIN_REFUSED) {
    CloseSocket();
    return ZD3_E_RELOGIN_REFUSED;
  }
  return nRet;
}

// Sends the frame whose body (nBodyLen bytes) is already in m_encode after
// the header, and reads the reply into m_reply. Any failure closes the
// socket: the session is broken and the next call recovers it.
int32 CSession::Exchange(uint16 nType, size_t nBodyLen, size_t nMaxReply,
                         Clock::time_point tpDeadline) {
  const uint32 nId = m_nNextRequestId++;
  wire_put_header(m_encode.Data(),
                  SFrameHeader{static_cast<uint32>(kFrameHeaderSize + nBodyLen), nType, 0, nId});
  int32 nRet = send_all(m_hSocket, m_encode.Data(), kFrameHeaderSize + nBodyLen, tpDeadline);
  if (nRet == 0 && !m_reply.Reserve(kFrameHeaderSize)) nRet = ZD3_E_NO_MEMORY;
  if (nRet == 0) nRet = recv_all(m_hSocket, m_reply.Data(), kFrameHeaderSize, tpDeadline);
  if (nRet == 0) {
    // Lengths from the wire are bounded before any use.
    const SFrameHeader h = wire_get_header(m_reply.Data());
    if (h.nLength < kFrameHeaderSize || h.nLength > nMaxReply ||
        h.nType != (nType | kWireReplyBit) || h.nRequestId != nId) {
      nRet = ZD3_E_PROTOCOL;
    } else if (!m_reply.Reserve(h.nLength)) {
      nRet = ZD3_E_NO_MEMORY;
    } else {
      nRet = recv_all(m_hSocket, m_reply.Data() + kFrameHeaderSize, h.nLength - kFrameHeaderSize,
                      tpDeadline);
      m_nReplyLen = h.nLength;
    }
  }
  if (nRet != 0) CloseSocket();
  return nRet;
}

int32 CSession::SendLogin(const char* szUser, const char* szPassword,
                          Clock::time_point tpDeadline) {
  const size_t nUser = std::strlen(szUser);
  const size_t nPass = std::strlen(szPassword);
  if (!m_encode.Reserve(kFrameHeaderSize + 4 + nUser + nPass)) return ZD3_E_NO_MEMORY;
  ++m_nEncodeUses;
  uint8* p = m_encode.Data() + kFrameHeaderSize;
  put_u16(p, static_cast<uint16>(nUser));
  std::memcpy(p + 2, szUser, nUser);
  p += 2 + nUser;
  put_u16(p, static_cast<uint16>(nPass));
  std::memcpy(p + 2, szPassword, nPass);
  int32 nRet = Exchange(kWireLogin, 4 + nUser + nPass, kFrameHeaderSize + 4, tpDeadline);
  if (nRet != 0) return nRet;
  if (m_nReplyLen != kFrameHeaderSize + 4) {
    CloseSocket();
    return ZD3_E_PROTOCOL;
  }
  return static_cast<int32>(get_u32(m_reply.Data() + kFrameHeaderSize));
}

int32 CSession::Connect(const ZD3Connection* pConn) {
  if (pConn == nullptr) return ZD3_E_NULL_POINTER;
  if (pConn->nTimeout < 1 || pConn->nTimeout > kMaxTimeoutSec ||
      std::memchr(pConn->szAddress, '\0', sizeof(pConn->szAddress)) == nullptr ||
      std::memchr(pConn->szBakAddress, '\0', sizeof(pConn->szBakAddress)) == nullptr) {
    return ZD3_E_INVALID_ARG;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_conn = *pConn;
  m_bHaveConn = false;
  m_bHaveLogin = false;
  // The total bound is two connection timeouts: one per address.
  const int32 nRet = OpenAny(Clock::now() + std::chrono::seconds(2 * pConn->nTimeout));
  m_bHaveConn = nRet == 0;
  return nRet;
}

int32 CSession::Disconnect() {
  std::lock_guard<std::mutex> lock(m_mutex);
  CloseSocket();
  m_bHaveConn = false;
  m_bHaveLogin = false;
  std::memset(m_szPassword, 0, sizeof(m_szPassword));
  return 0;
}

int32 CSession::Login(const char* szUser, const char* szPassword) {
  if (szUser == nullptr || szPassword == nullptr) return ZD3_E_NULL_POINTER;
  if (std::strlen(szUser) > kMaxLoginField || std::strlen(szPassword) > kMaxLoginField) {
    return ZD3_E_INVALID_ARG;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  const auto tpDeadline = RequestDeadline();
  int32 nRet = EnsureSession(tpDeadline, false);
  if (nRet == 0) nRet = SendLogin(szUser, szPassword, tpDeadline);
  if (nRet == 0) {
    std::memset(m_szUser, 0, sizeof(m_szUser));
    std::memset(m_szPassword, 0, sizeof(m_szPassword));
    std::memcpy(m_szUser, szUser, std::strlen(szUser));
    std::memcpy(m_szPassword, szPassword, std::strlen(szPassword));
    m_bHaveLogin = true;
  } else if (m_hSocket >= 0) {
    // The open session is now logged out on the server; recovery must not
    // log in where the caller is not.
    m_bHaveLogin = false;
  }
  return nRet;
}

int32 CSession::SetOption(int32 nOption) {
  if ((nOption & ~ZD3_OPTION_AUTO_RECOVER) != 0) return ZD3_E_INVALID_ARG;
  std::lock_guard<std::mutex> lock(m_mutex);
  m_nOption = nOption;
  return 0;
}

int32 CSession::SetRequestTimeout(int32 nSeconds) {
  if (nSeconds < 1 || nSeconds > kMaxTimeoutSec) return ZD3_E_INVALID_ARG;
  std::lock_guard<std::mutex> lock(m_mutex);
  m_nRequestTimeoutSec = nSeconds;
  return 0;
}

// Validates the records and encodes them after the frame header of
// m_encode, in one pass over the caller's array (a 1 MiB batch is 3 MB of
// ZD3Record: a second pass to size the request first cost more than the
// encoding). Room is taken for the largest fixed-size record of each one
// left, and grown only for strings and blobs. Nothing is sent; on an
// invalid record or an oversized request the buffer's contents are moot.
int32 CSession::EncodeSave(int32 nCount, const uint32* pIds, const ZD3Record* pRecs,
                           size_t* pnBody) {
  constexpr size_t kMaxFixedRecord = kRecordFixedSize + 8;
  const size_t nStart = kFrameHeaderSize + 4;
  if (!m_encode.Reserve(nStart + static_cast<size_t>(nCount) * kMaxFixedRecord)) {
    return ZD3_E_NO_MEMORY;
  }
  size_t nOff = nStart;
  bool bTooLarge = false;  // from here on, records are only checked
  for (int32 i = 0; i < nCount; ++i) {
    const ZD3Record& r = pRecs[i];
    // Read as a plain integer: a caller's out-of-range type is not a valid
    // enumerator, and loading it as one is undefined.
    uint32 nType;
    std::memcpy(&nType, &r.nTagType, sizeof(nType));
    if (nType > ZD3_TAG_TYPE_MAX) return ZD3_E_INVALID_ARG;
    if (nType == ZD3_TAG_TYPE_STRING || nType == ZD3_TAG_TYPE_BLOB) {
      const uint16 nLen = r.value.strBlob.nLenBuf;
      if (nLen > ZD3_MAX_STRBLOB_LEN || (nLen > 0 && r.value.strBlob.pBuf == nullptr)) {
        return ZD3_E_INVALID_ARG;
      }
      // Only strings and blobs can outgrow a frame (a million fixed-size
      // records take 21 MB), so the limit is checked here and at the end.
      const size_t nRecord = kRecordFixedSize + static_cast<size_t>(wire_value_size(nType, nLen));
      bTooLarge = bTooLarge || nOff + nRecord > kMaxFrameSize;
      if (!bTooLarge && nRecord > kMaxFixedRecord &&
          !m_encode.Reserve(nOff + nRecord +
                            static_cast<size_t>(nCount - i - 1) * kMaxFixedRecord)) {
        return ZD3_E_NO_MEMORY;
      }
    }
    if (bTooLarge) continue;
    nOff = static_cast<size_t>(wire_put_record(m_encode.Data() + nOff, pIds[i], r) -
                               m_encode.Data());
  }
  if (bTooLarge || nOff > kMaxFrameSize) return ZD3_E_REQUEST_TOO_LARGE;
  put_u32(m_encode.Data() + kFrameHeaderSize, static_cast<uint32>(nCount));
  *pnBody = nOff - kFrameHeaderSize;
  return 0;
}

int32 CSession::Save(int32 nCount, const uint32* pIds, const ZD3Record* pRecs, int32* pErrs) {
  if (pIds == nullptr || pRecs == nullptr || pErrs == nullptr) return ZD3_E_NULL_POINTER;
  if (nCount < 1 || static_cast<uint32>(nCount) > kMaxSaveCount) return ZD3_E_INVALID_ARG;

  std::lock_guard<std::mutex> lock(m_mutex);
  // Every record is checked before anything is sent, and an invalid one is
  // refused without touching the session.
  size_t nBody = 0;
  int32 nRet = EncodeSave(nCount, pIds, pRecs, &nBody);
  if (nRet == ZD3_E_INVALID_ARG || nRet == ZD3_E_REQUEST_TOO_LARGE) return nRet;
  const auto tpDeadline = RequestDeadline();
  const uint64 nEncodeUses = m_nEncodeUses;
  if (nRet == 0) nRet = EnsureSession(tpDeadline, true);
  // A recovery's greeting and login were built in the same buffer.
  if (nRet == 0 && m_nEncodeUses != nEncodeUses) nRet = EncodeSave(nCount, pIds, pRecs, &nBody);
  if (nRet == 0) {
    const size_t nMaxReply = kFrameHeaderSize + 8 + 8 * static_cast<size_t>(nCount);
    nRet = Exchange(kWireSave, nBody, nMaxReply, tpDeadline);
  }
  if (nRet == 0) {
    const uint8* r = m_reply.Data() + kFrameHeaderSize;
    const size_t nReplyBody = m_nReplyLen - kFrameHeaderSize;
    const uint32 nFailed = nReplyBody >= 8 ? get_u32(r + 4) : 0;
    if (nReplyBody < 8 || nReplyBody != 8 + 8 * static_cast<size_t>(nFailed)) {
      CloseSocket();
      nRet = ZD3_E_PROTOCOL;
    } else {
      nRet = static_cast<int32>(get_u32(r));
      std::memset(pErrs, 0, sizeof(int32) * static_cast<size_t>(nCount));
      if (nRet != 0 && nRet != ZD3_E_SOME_RECORDS_FAILED) {
        for (int32 i = 0; i < nCount; ++i) pErrs[i] = nRet;
      }
      // Indexes must rise strictly and stay below the count; anything else is
      // a broken server, not something to write through into pErrs.
      int64 nPrev = -1;
      for (uint32 k = 0; k < nFailed && nRet == ZD3_E_SOME_RECORDS_FAILED; ++k) {
        const uint32 nIndex = get_u32(r + 8 + 8 * k);
        if (static_cast<int64>(nIndex) <= nPrev || nIndex >= static_cast<uint32>(nCount)) {
          CloseSocket();
          nRet = ZD3_E_PROTOCOL;
          break;
        }
        pErrs[nIndex] = static_cast<int32>(get_u32(r + 12 + 8 * k));
        nPrev = nIndex;
      }
    }
  }
  if (nRet != 0 && nRet != ZD3_E_SOME_RECORDS_FAILED) {
    for (int32 i = 0; i < nCount; ++i) pErrs[i] = nRet;
  }
  return nRet;
}

// Never destroyed: a call from another thread during exit must not find a
// destroyed mutex.
CSession& session() {
  static CSession* s_pSession = new CSession;
  return *s_pSession;
}

}  // namespace

extern "C" {

int32 nt3_connect(ZD3Connection* pConn) { return session().Connect(pConn); }
int32 nt3_disconnect(void) { return session().Disconnect(); }
int32 sc3_login(const char* szUser, const char* szPassword) {
  return session().Login(szUser, szPassword);
}
int32 ut3_set_api_option(int32 nOption) { return session().SetOption(nOption); }
int32 ut3_set_request_timeout(int32 nSeconds) { return session().SetRequestTimeout(nSeconds); }
int32 sn3_save_tags_disorder_snapshots(int32 nCount, uint32* pIds, ZD3Record* pRecs, int32* pErrs) {
  return session().Save(nCount, pIds, pRecs, pErrs);
}

}  // extern "C"
