// Helpers shared by the client and server tests: a scratch directory, a
// reference server in this process, records, and reading back the database.
#ifndef TESTS_ORLO_ORLO_TEST_UTIL_H_
#define TESTS_ORLO_ORLO_TEST_UTIL_H_

#include <ctime>
#include <string>
#include <vector>

#include "refserver.h"
#include "zdorlo_api.h"

// A temporary directory removed with its files at destruction.
class CScratchDir {
 public:
  CScratchDir();
  ~CScratchDir();
  CScratchDir(const CScratchDir&) = delete;
  CScratchDir& operator=(const CScratchDir&) = delete;
  std::string Path(const char* szName) const { return m_strDir + "/" + szName; }

 private:
  std::string m_strDir;
};

// One stored row as read back from the database.
struct SStoredRow {
  int64 nCall;
  uint32 nTag;
  int32 nSec;
  int32 nMsec;
  int32 nQuality;
  int32 nType;
  int nValueType;  // SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB
  int64 nInt;
  double fReal;
  std::string strBytes;
};

std::vector<SStoredRow> read_rows(const std::string& strDb);

ZD3Record make_int32(int32 nSec, int32 nValue);

ZD3Connection make_conn(uint16 nPort, uint16 nBakPort = 0, int32 nTimeout = 2);

// A port on 127.0.0.1 that nobody listens on (bound, then closed).
uint16 closed_port();

// Seconds since tp.
double seconds_since(const struct timespec& tp);
struct timespec now_mono();

#endif  // TESTS_ORLO_ORLO_TEST_UTIL_H_
