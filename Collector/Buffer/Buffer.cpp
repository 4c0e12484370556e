#include "Buffer.h"

#include <limits.h>
#include <mxml.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <list>

#include "config_manager.h"
#include "zd_errcode.h"

namespace {

constexpr int32 kConfigPathSize = 280;    // buffer for a configuration file's path
constexpr int32 kConvBufferSize = 512;    // converted Path / Prefix
constexpr size_t kMaxRawPathBytes = 512;  // Path / Prefix as written, UTF-8
constexpr size_t kMaxConvertedBytes = 254;
constexpr int32 kDefaultMemSizeMb = 64;
constexpr int32 kMaxCacheFileSizeMb = 1048576;

// atoi's reading (leading blanks, sign, digits up to the first other
// character; no digits reads 0), saturating instead of overflowing.
int32 ReadInt(const char* sz) {
  long long n = strtoll(sz, nullptr, 10);
  if (n > INT_MAX) return INT_MAX;
  if (n < INT_MIN) return INT_MIN;
  return static_cast<int32>(n);
}

// A required positive integer attribute of pNode.
int32 ReadPositive(mxml_node_t* pNode, const char* szAttr, int32* pnOut) {
  const char* sz = mxmlElementGetAttr(pNode, szAttr);
  if (sz == nullptr) return EC_CFG_ATTR_MISSING;
  *pnOut = ReadInt(sz);
  return *pnOut > 0 ? 0 : EC_CFG_RANGE;
}

// Converts a Path or Prefix attribute into the system's encoding.
int32 ReadConverted(const char* szRaw, char* szConv, size_t* pnConvLen) {
  if (strlen(szRaw) > kMaxRawPathBytes) return EC_CFG_TOO_LONG;
  int32 nRet = os_lang_conv_utf8_to_sys(szRaw, szConv, kConvBufferSize);
  if (nRet != 0) return nRet;
  *pnConvLen = strlen(szConv);
  return 0;
}

}  // namespace

CBuffer::CBuffer()
    : m_nCacheFileSize(0),
      m_nSendPerid(0),
      m_nSendTimeout(0),
      m_nConnectTimeout(3),
      m_szCacheFilePath(),
      m_szCacheFilePrefix(),
      m_szVersion(),
      m_szProcName(),
      m_nMemSizeMB(0),
      m_szCacheFileName(),
      m_cat(nullptr),
      m_hSema(-1),
      m_bSemaAquired(false),
      m_hProComm(nullptr) {}

int32 CBuffer::Init() {
  int32 nRet = LoadConfig();
  if (nRet != 0) {
    printf("Load XML configure file failed. Error code:%d.\n", nRet);
    return nRet;
  }
  printf("ProcName is %s\n", m_szProcName);

  char szSemaName[sizeof(m_szProcName) + 8];
  snprintf(szSemaName, sizeof(szSemaName), "%s_sema", m_szProcName);
  nRet = os_proc_sema_init(szSemaName, 1, &m_hSema);
  if (nRet != 0) {
    m_hSema = -1;
    return nRet;
  }
  nRet = os_proc_sema_tryacquire(m_hSema);
  if (nRet != 0) return nRet;
  m_bSemaAquired = true;

  nRet = os_dir_create(m_szCacheFilePath);
  if (nRet != 0) {
    printf("Create directory with name %s failed.Error code:%d.\n", m_szCacheFilePath, nRet);
    return nRet;
  }
  char szLogConfig[kConfigPathSize];
  nRet = config_build_file_all_path_by_relative_path(szLogConfig, kConfigPathSize, "LogClient.xml");
  if (nRet != 0) {
    printf("Get config file path failed, error code is %d\n", nRet);
    return nRet;
  }
  nRet = logc_init(szLogConfig, "Buffer");
  if (nRet != 0) {
    printf("Log init failed. Error code:%d.\n", nRet);
    return nRet;
  }
  m_cat = logc_get_category("Zandor.Buffer");

  nRet = proccomm_init(m_szProcName, m_nMemSizeMB, 4096, 1000, &m_hProComm);
  if (nRet != 0) {
    m_hProComm = nullptr;
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "ProcComm init failed");
    return nRet;
  }
  // Path and prefix, an underscore and "buffer.buf" must fit 255 characters.
  if (strlen(m_szCacheFilePath) + strlen(m_szCacheFilePrefix) + 11 > 255) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_CACHE_NAME_TOO_LONG, "Length of Cache file name is too long");
    return EC_CACHE_NAME_TOO_LONG;
  }
  // "%s%s_%s" of path, prefix and "buffer.buf"; the check above makes it fit.
  static const char kSuffix[] = "_buffer.buf";
  size_t nPathLen = strlen(m_szCacheFilePath), nPrefixLen = strlen(m_szCacheFilePrefix);
  memset(m_szCacheFileName, 0, sizeof(m_szCacheFileName));
  memcpy(m_szCacheFileName, m_szCacheFilePath, nPathLen);
  memcpy(m_szCacheFileName + nPathLen, m_szCacheFilePrefix, nPrefixLen);
  memcpy(m_szCacheFileName + nPathLen + nPrefixLen, kSuffix, sizeof(kSuffix));

  std::list<SrvInfo*> listSrvInfo;
  nRet = m_cacheFile.Init(m_szVersion, m_szCacheFileName, m_nCacheFileSize, &listSrvInfo);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "Cachefile init failed");
    return nRet;
  }
  LOGC_WRITE(m_cat, LL_INFO, 0, "Cachefile init ok listSrvInfo cnt %d",
             static_cast<int32>(listSrvInfo.size()));
  nRet = m_apiConnector.init(m_nSendPerid, m_nSendTimeout, m_nConnectTimeout, &m_hProComm,
                             listSrvInfo, &m_cacheFile);
  if (nRet != 0) {
    LOGC_WRITE(m_cat, LL_ERROR, nRet, "APIConnector init failed");
    return nRet;
  }
  LOGC_WRITE(m_cat, LL_INFO, 0, "buffer init succeed");
  return 0;
}

int32 CBuffer::Start() {
  ConnManageParam* pParam = static_cast<ConnManageParam*>(malloc(sizeof(ConnManageParam)));
  if (pParam == nullptr) {
    LOGC_WRITE(m_cat, LL_ERROR, EC_NO_MEMORY, "Allocate memery failed");
    return EC_NO_MEMORY;
  }
  pParam->pCacheFile = &m_cacheFile;
  int32 nRet = m_apiConnector.Start(pParam);
  if (nRet != 0) free(pParam);  // no thread took it
  return nRet;
}

int32 CBuffer::Stop() { return m_apiConnector.Stop(); }

int32 CBuffer::Release() {
  if (m_hProComm != nullptr) {
    proccomm_release(m_hProComm);
    m_hProComm = nullptr;
  }
  m_cacheFile.Release();
  logc_finish();
  m_cat = nullptr;
  if (m_hSema != -1) {
    if (m_bSemaAquired) os_proc_sema_release(m_hSema);
    os_proc_sema_destroy(m_hSema);
    m_hSema = -1;
    m_bSemaAquired = false;
  }
  return 0;
}

int32 CBuffer::LoadConfig() {
  char szPath[kConfigPathSize];
  int32 nRet = config_build_file_all_path_by_relative_path(szPath, kConfigPathSize, "ZD3Buffer.xml");
  if (nRet != 0) {
    printf("Get config file path failed, error code is %d\n", nRet);
    return nRet;
  }
  printf("config file path is %s\n", szPath);

  FILE* fp = fopen(szPath, "r");
  if (fp == nullptr) return EC_CFG_OPEN;
  mxml_node_t* pTree = mxmlLoadFile(nullptr, fp, MXML_OPAQUE_CALLBACK);
  fclose(fp);
  if (pTree == nullptr) return EC_CFG_NOT_XML;

  // Each step runs only while the previous ones succeeded; the tree is freed
  // once, at the end, on every path.
  mxml_node_t* pBuffer = mxmlFindElement(pTree, pTree, "Buffer", nullptr, nullptr, MXML_DESCEND);
  mxml_node_t* pCacheFile = nullptr;
  mxml_node_t* pSend = nullptr;
  if (pBuffer == nullptr) nRet = EC_CFG_MISSING;

  if (nRet == 0) {
    const char* szVersion = mxmlElementGetAttr(pBuffer, "version");
    if (szVersion == nullptr)
      nRet = EC_CFG_MISSING;
    else if (strlen(szVersion) >= sizeof(m_szVersion))
      nRet = EC_CFG_TOO_LONG;
    else
      strcpy(m_szVersion, szVersion);
  }
  if (nRet == 0) {
    const char* szName = mxmlElementGetAttr(pBuffer, "name");
    if (szName == nullptr)
      nRet = EC_CFG_MISSING;
    else if (strlen(szName) >= sizeof(m_szProcName))
      nRet = EC_CFG_TOO_LONG;
    else
      strcpy(m_szProcName, szName);
  }
  if (nRet == 0) {
    const char* szMemSize = mxmlElementGetAttr(pBuffer, "memsizemb");
    m_nMemSizeMB = szMemSize != nullptr ? ReadInt(szMemSize) : kDefaultMemSizeMb;
    pCacheFile = mxmlFindElement(pBuffer, pBuffer, "CacheFile", nullptr, nullptr, MXML_DESCEND);
    pSend = mxmlFindElement(pBuffer, pBuffer, "Send", nullptr, nullptr, MXML_DESCEND);
    if (pCacheFile == nullptr || pSend == nullptr) nRet = EC_CFG_MISSING;
  }

  char szConv[kConvBufferSize];
  size_t nConvLen = 0;
  if (nRet == 0) {
    const char* szCachePath = mxmlElementGetAttr(pCacheFile, "Path");
    nRet = szCachePath == nullptr ? EC_CFG_MISSING : ReadConverted(szCachePath, szConv, &nConvLen);
    if (nRet == 0 && (nConvLen == 0 || nConvLen > kMaxConvertedBytes)) nRet = EC_CFG_RANGE;
    if (nRet == 0) {
      memcpy(m_szCacheFilePath, szConv, nConvLen + 1);
      char cLast = m_szCacheFilePath[nConvLen - 1];
      if (cLast != '/' && cLast != '\\') strcat(m_szCacheFilePath, "/");
    }
  }
  if (nRet == 0) {
    const char* szPrefix = mxmlElementGetAttr(pCacheFile, "Prefix");
    nRet = szPrefix == nullptr ? EC_CFG_ATTR_MISSING : ReadConverted(szPrefix, szConv, &nConvLen);
    if (nRet == 0 && nConvLen > kMaxConvertedBytes) nRet = EC_CFG_RANGE;
    if (nRet == 0) memcpy(m_szCacheFilePrefix, szConv, nConvLen + 1);
  }
  if (nRet == 0) {
    const char* szSize = mxmlElementGetAttr(pCacheFile, "SizeMb");
    if (szSize == nullptr) {
      nRet = EC_CFG_ATTR_MISSING;
    } else {
      m_nCacheFileSize = ReadInt(szSize);
      if (m_nCacheFileSize < 1 || m_nCacheFileSize > kMaxCacheFileSizeMb) nRet = EC_CFG_RANGE;
    }
  }
  if (nRet == 0) nRet = ReadPositive(pSend, "PeriodMs", &m_nSendPerid);
  if (nRet == 0) nRet = ReadPositive(pSend, "ConnTimeOutSec", &m_nConnectTimeout);
  if (nRet == 0) nRet = ReadPositive(pSend, "SendTimeOutSec", &m_nSendTimeout);

  mxmlDelete(pTree);
  return nRet;
}
