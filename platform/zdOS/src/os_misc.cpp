// Directories, time, addresses and text encoding.
#include <arpa/inet.h>
#include <errno.h>
#include <iconv.h>
#include <langinfo.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <string>

#include "zdos.h"

int32 os_dir_create(const char* szPath) {
  if (szPath == nullptr || szPath[0] == '\0') return OS_EINVAL_ARG;
  std::string path(szPath);
  // Create each missing component from the root down; EEXIST is fine as long
  // as the last one is a directory.
  for (size_t nPos = 1; nPos <= path.size(); ++nPos) {
    if (nPos != path.size() && path[nPos] != '/') continue;
    std::string part = path.substr(0, nPos);
    if (part.empty() || part.back() == '/') continue;
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return errno;
  }
  struct stat st;
  if (stat(szPath, &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

int32 os_get_curr_time_sec_and_msec(uint32* pnSec, uint16* pnMsec) {
  if (pnSec == nullptr || pnMsec == nullptr) return OS_EINVAL_ARG;
  struct timespec ts;
  if (clock_gettime(CLOCK_REALTIME, &ts) != 0) return errno;
  *pnSec = static_cast<uint32>(ts.tv_sec);
  *pnMsec = static_cast<uint16>(ts.tv_nsec / 1000000);
  return 0;
}

int32 os_gettimeofday_high_res(struct timeval* pTime) {
  if (pTime == nullptr) return OS_EINVAL_ARG;
  return gettimeofday(pTime, nullptr) == 0 ? 0 : errno;
}

int32 os_timevalue_sub(struct timeval* pResult, const struct timeval* pLater,
                       const struct timeval* pEarlier) {
  if (pResult == nullptr || pLater == nullptr || pEarlier == nullptr) return OS_EINVAL_ARG;
  timersub(pLater, pEarlier, pResult);
  return 0;
}

int32 os_sleep(int32 nMs) {
  if (nMs <= 0) return 0;
  struct timespec req = {nMs / 1000, static_cast<long>(nMs % 1000) * 1000000L};
  struct timespec rem;
  while (nanosleep(&req, &rem) != 0) {
    if (errno != EINTR) return errno;
    req = rem;
  }
  return 0;
}

int32 os_network_ip2int(const char* szIP, uint32* pnIP) {
  if (szIP == nullptr || pnIP == nullptr) return OS_EINVAL_ARG;
  struct in_addr addr;
  if (inet_pton(AF_INET, szIP, &addr) != 1) return OS_EBAD_ADDRESS;
  *pnIP = addr.s_addr;
  return 0;
}

int32 os_lang_conv_utf8_to_sys(const char* szUtf8, char* szOut, int32 nOutSize) {
  if (szUtf8 == nullptr || szOut == nullptr || nOutSize < 1) return OS_EINVAL_ARG;
  const char* szCodeset = nl_langinfo(CODESET);
  size_t nInLen = strlen(szUtf8);
  // In the C locale (ASCII) file names are plain bytes to the kernel: copy.
  if (szCodeset == nullptr || strcmp(szCodeset, "UTF-8") == 0 ||
      strcmp(szCodeset, "ANSI_X3.4-1968") == 0) {
    if (nInLen + 1 > static_cast<size_t>(nOutSize)) return OS_EBUF_SMALL;
    memcpy(szOut, szUtf8, nInLen + 1);
    return 0;
  }
  iconv_t cd = iconv_open(szCodeset, "UTF-8");
  if (cd == reinterpret_cast<iconv_t>(-1)) return errno;
  char* pIn = const_cast<char*>(szUtf8);
  char* pOut = szOut;
  size_t nOutLeft = static_cast<size_t>(nOutSize) - 1;  // room for the terminator
  size_t nRet = iconv(cd, &pIn, &nInLen, &pOut, &nOutLeft);
  int32 nStatus = 0;
  if (nRet == static_cast<size_t>(-1)) nStatus = errno == E2BIG ? OS_EBUF_SMALL : errno;
  if (nStatus == 0 && iconv(cd, nullptr, nullptr, &pOut, &nOutLeft) == static_cast<size_t>(-1))
    nStatus = errno == E2BIG ? OS_EBUF_SMALL : errno;
  iconv_close(cd);
  if (nStatus != 0) return nStatus;
  *pOut = '\0';
  return 0;
}
