#include "orlo_test_util.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

CScratchDir::CScratchDir() {
  char szTemplate[] = "/tmp/zdorlo_test_XXXXXX";
  const char* p = mkdtemp(szTemplate);
  m_strDir = p != nullptr ? p : "/tmp";
}

CScratchDir::~CScratchDir() {
  std::error_code ec;
  if (m_strDir != "/tmp") std::filesystem::remove_all(m_strDir, ec);
}

std::vector<SStoredRow> read_rows(const std::string& strDb) {
  std::vector<SStoredRow> v;
  sqlite3* pDb = nullptr;
  sqlite3_stmt* p = nullptr;
  if (sqlite3_open_v2(strDb.c_str(), &pDb, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(pDb,
                         "SELECT call, tag, sec, msec, quality, type, value FROM records"
                         " ORDER BY seq",
                         -1, &p, nullptr) == SQLITE_OK) {
    while (sqlite3_step(p) == SQLITE_ROW) {
      SStoredRow r{};
      r.nCall = sqlite3_column_int64(p, 0);
      r.nTag = static_cast<uint32>(sqlite3_column_int64(p, 1));
      r.nSec = sqlite3_column_int(p, 2);
      r.nMsec = sqlite3_column_int(p, 3);
      r.nQuality = sqlite3_column_int(p, 4);
      r.nType = sqlite3_column_int(p, 5);
      r.nValueType = sqlite3_column_type(p, 6);
      r.nInt = sqlite3_column_int64(p, 6);
      r.fReal = sqlite3_column_double(p, 6);
      if (r.nValueType == SQLITE_TEXT || r.nValueType == SQLITE_BLOB) {
        const void* pb = sqlite3_column_blob(p, 6);
        r.strBytes.assign(static_cast<const char*>(pb), sqlite3_column_bytes(p, 6));
      }
      v.push_back(r);
    }
  }
  sqlite3_finalize(p);
  sqlite3_close(pDb);
  return v;
}

ZD3Record make_int32(int32 nSec, int32 nValue) {
  ZD3Record r;
  std::memset(&r, 0, sizeof(r));
  r.nSec = nSec;
  r.nMsec = 250;
  r.nQuality = 192;
  r.nTagType = ZD3_TAG_TYPE_INT32;
  r.value.nInt32 = nValue;
  return r;
}

ZD3Connection make_conn(uint16 nPort, uint16 nBakPort, int32 nTimeout) {
  ZD3Connection c;
  std::memset(&c, 0, sizeof(c));
  std::strcpy(c.szAddress, "127.0.0.1");
  c.nPort = nPort;
  if (nBakPort != 0) std::strcpy(c.szBakAddress, "127.0.0.1");
  c.nBakPort = nBakPort;
  c.nTimeout = nTimeout;
  return c;
}

uint16 closed_port() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t n = sizeof(a);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
  close(fd);
  return ntohs(a.sin_port);
}

struct timespec now_mono() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t;
}

double seconds_since(const struct timespec& tp) {
  const struct timespec t = now_mono();
  return static_cast<double>(t.tv_sec - tp.tv_sec) + (t.tv_nsec - tp.tv_nsec) * 1e-9;
}
