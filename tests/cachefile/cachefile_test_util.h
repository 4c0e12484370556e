// Shared helpers of the cache file tests: a scratch directory, raw byte
// access to the file, in-memory state for the checker, and a friend that
// reaches the private operations.
#ifndef TESTS_CACHEFILE_CACHEFILE_TEST_UTIL_H_
#define TESTS_CACHEFILE_CACHEFILE_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "CacheFile.h"
#include "CacheFileCheck.h"
#include "CacheFileFormat.h"
#include "logc_test.h"
#include "zd_errcode.h"
#include "zdos_fault.h"

struct CacheFileTestAccess {
  static FileBaseInfo& Base(CCacheFile& c) { return c.m_fileBlockInfo; }
  static std::list<SrvInfo*>& List(CCacheFile& c) { return c.m_listSrvInfo; }
  static int32 Alloc(CCacheFile& c, int32* pBlockNo) { return c.AllocIdleBlock(pBlockNo); }
  static int32 Free(CCacheFile& c, int32 nBlockNo) { return c.FreeIdleBlock(nBlockNo); }
  // Creates one more entry, as SaveSrvInfo does for the first one.
  static int32 AddSrv(CCacheFile& c, uint32 nIP, uint16 nPort, SrvHandle* ph) {
    std::list<SrvInfo*> saved;
    saved.swap(c.m_listSrvInfo);
    int32 nRet = c.SaveSrvInfo(nIP, nPort, ph);
    std::list<SrvInfo*> created;
    created.swap(c.m_listSrvInfo);
    c.m_listSrvInfo.swap(saved);
    c.m_listSrvInfo.splice(c.m_listSrvInfo.end(), created);
    return nRet;
  }
  static CacheCheckState State(CCacheFile& c) {
    CacheCheckState st;
    st.bHeader = true;
    st.nBlockSize = c.m_fileBlockInfo.nBlockSize;
    st.nTotalBlockNum = c.m_fileBlockInfo.nTotalBlockNum;
    st.nIdleHeadNo = c.m_fileBlockInfo.nIdleHeadNo;
    st.nSrvInfoHeadNo = c.m_fileBlockInfo.nSrvInfoHeadNo;
    st.nSrvInfoTailNo = c.m_fileBlockInfo.nSrvInfoTailNo;
    st.bEntries = true;
    for (SrvInfo* p : c.m_listSrvInfo) st.vecEntries.push_back(*p);
    return st;
  }
};

namespace cftest {

inline std::string MakeTempDir() {
  char szTemplate[] = "/tmp/zdcachetest.XXXXXX";
  const char* p = mkdtemp(szTemplate);
  return p != nullptr ? std::string(p) : std::string();
}

inline std::vector<char> ReadFileBytes(const std::string& strPath) {
  std::ifstream in(strPath, std::ios::binary);
  return std::vector<char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
inline void WriteFileBytes(const std::string& strPath, const std::vector<char>& bytes) {
  std::ofstream out(strPath, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}
inline int32 ReadI32(const std::string& strPath, int64 nOffset) {
  std::ifstream in(strPath, std::ios::binary);
  in.seekg(nOffset);
  int32 n = 0;
  in.read(reinterpret_cast<char*>(&n), 4);
  return in ? n : 0;  // past the end: zero, as the platform reads it
}
inline void WriteI32(const std::string& strPath, int64 nOffset, int32 n) {
  std::fstream io(strPath, std::ios::binary | std::ios::in | std::ios::out);
  io.seekp(nOffset);
  io.write(reinterpret_cast<const char*>(&n), 4);
}
inline int64 FileSize(const std::string& strPath) {
  std::error_code ec;
  auto n = std::filesystem::file_size(strPath, ec);
  return ec ? -1 : static_cast<int64>(n);
}

// Deterministic payload of record nId.
inline std::vector<char> Payload(uint32 nId, int32 nLen) {
  std::vector<char> v(static_cast<size_t>(nLen));
  uint32 x = nId * 2654435761u + 12345u;
  for (int32 i = 0; i < nLen; ++i) {
    x = x * 1103515245u + 12345u;
    v[static_cast<size_t>(i)] = static_cast<char>(x >> 24);
  }
  if (nLen >= 4) memcpy(v.data(), &nId, 4);
  return v;
}

inline std::string Describe(const std::vector<CacheCheckFinding>& v) {
  std::string s;
  for (const auto& f : v) s += std::to_string(f.nKind) + ": " + f.strText + "\n";
  return s;
}

// Checks the file on disk and, when pCache is given, the state in memory
// against it. Damage always fails; leaks only when !bLeaksOk.
inline void ExpectConsistent(const std::string& strPath, int32 nMb, CCacheFile* pCache,
                             bool bLeaksOk, std::vector<CacheQueueStat>* pStats = nullptr) {
  std::vector<CacheCheckFinding> findings;
  std::vector<CacheQueueStat> stats;
  ASSERT_EQ(0, cache_file_check(strPath.c_str(), nMb, &findings, &stats));
  EXPECT_EQ(0, cache_check_count(findings, CACHE_CHECK_DAMAGE)) << "disk:\n" << Describe(findings);
  if (!bLeaksOk) {
    EXPECT_EQ(0, cache_check_count(findings, CACHE_CHECK_LEAK)) << Describe(findings);
  }
  if (pCache != nullptr) {
    std::vector<CacheCheckFinding> memFindings;
    CacheCheckState st = CacheFileTestAccess::State(*pCache);
    stats.clear();
    ASSERT_EQ(0, cache_file_check_state(strPath.c_str(), nMb, &st, &memFindings, &stats));
    EXPECT_EQ(0, cache_check_count(memFindings, CACHE_CHECK_DAMAGE)) << "memory:\n"
                                                                     << Describe(memFindings);
    if (!bLeaksOk) {
      EXPECT_EQ(0, cache_check_count(memFindings, CACHE_CHECK_LEAK)) << Describe(memFindings);
    }
  }
  if (pStats != nullptr) *pStats = stats;
}

// Fixture: a scratch directory, log capture and a file name in it.
class CacheFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_strDir = MakeTempDir();
    ASSERT_FALSE(m_strDir.empty());
    m_strPath = m_strDir + "/zd_buffer.buf";
    ASSERT_EQ(0, logc_init_capture(LL_TRACE));
  }
  void TearDown() override {
    os_fault_disarm();
    m_cache.Release();
    logc_finish();
    std::error_code ec;
    std::filesystem::remove_all(m_strDir, ec);
  }
  int32 Open(int32 nMb) {
    m_cache.Release();
    m_list.clear();
    return m_cache.Init("3.0.1", m_strPath.c_str(), nMb, &m_list);
  }
  SrvHandle Srv() {
    SrvHandle h = nullptr;
    EXPECT_EQ(0, m_cache.SaveSrvInfo(0x0100007f, 5678, &h));
    return h;
  }
  int32 Save(SrvHandle h, uint32 nId, int32 nLen) {
    std::vector<char> v = Payload(nId, nLen);
    return m_cache.SaveRecord(h, v.data(), nLen);
  }
  // Reads the oldest record and checks it is record nId of nLen bytes.
  void ExpectFront(SrvHandle h, uint32 nId, int32 nLen) {
    std::vector<char> buf(static_cast<size_t>(nLen) + 16);
    int32 nCap = static_cast<int32>(buf.size());
    ASSERT_EQ(0, m_cache.ReadCurRecord(h, buf.data(), &nCap));
    ASSERT_EQ(nLen, nCap);
    buf.resize(static_cast<size_t>(nLen));
    EXPECT_TRUE(buf == Payload(nId, nLen)) << "record " << nId;
  }
  int32 BlockSize() { return CacheFileTestAccess::Base(m_cache).nBlockSize; }
  int64 BlockAt(int32 n) { return cachefile::BlockOffset(n, BlockSize()); }

  std::string m_strDir;
  std::string m_strPath;
  CCacheFile m_cache;
  std::list<SrvInfo*> m_list;
};

}  // namespace cftest

#endif  // TESTS_CACHEFILE_CACHEFILE_TEST_UTIL_H_
