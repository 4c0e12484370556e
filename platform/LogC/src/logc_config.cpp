// LogClient.xml:
//
//   <?xml version="1.0"?>
//   <LogClient threshold="INFO">                       default threshold
//     <Category name="Zandor.Buffer" threshold="DEBUG"/>   any number
//     <FileAppender enabled="true" path="../log/x.log" maxSizeMb="16" maxFiles="5"/>
//     <ConsoleAppender enabled="false"/>                 lines on stderr
//   </LogClient>
//
// Unknown elements and attributes are ignored; a bad level, size or count is
// refused rather than guessed.
#include "logc_config.h"

#include <mxml.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>

namespace {

bool ParseBool(const char* sz, bool bDefault) {
  if (sz == nullptr) return bDefault;
  return strcasecmp(sz, "true") == 0 || strcasecmp(sz, "yes") == 0 || strcmp(sz, "1") == 0;
}

// Whole-string positive integer; -1 when the text is not one.
long long ParsePositive(const char* sz) {
  if (sz == nullptr || *sz == '\0') return -1;
  char* pEnd = nullptr;
  long long n = strtoll(sz, &pEnd, 10);
  if (*pEnd != '\0' || n <= 0) return -1;
  return n;
}

}  // namespace

int32 logc_parse_level(const char* szLevel) {
  static const char* const kNames[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  if (szLevel == nullptr) return -1;
  for (int32 i = 0; i < 6; ++i)
    if (strcasecmp(szLevel, kNames[i]) == 0) return i;
  if (szLevel[0] >= '0' && szLevel[0] <= '5' && szLevel[1] == '\0') return szLevel[0] - '0';
  return -1;
}

int32 logc_load_config(const char* szPath, LogcConfig* pConfig, std::string* pstrError) {
  FILE* fp = fopen(szPath, "r");
  if (fp == nullptr) {
    *pstrError = std::string("cannot open ") + szPath;
    return LOGC_E_CONFIG_OPEN;
  }
  mxml_node_t* pTree = mxmlLoadFile(nullptr, fp, MXML_OPAQUE_CALLBACK);
  fclose(fp);
  mxml_node_t* pRoot =
      pTree ? mxmlFindElement(pTree, pTree, "LogClient", nullptr, nullptr, MXML_DESCEND) : nullptr;
  if (pRoot == nullptr) {
    mxmlDelete(pTree);
    *pstrError = std::string(szPath) + " is not XML with a <LogClient> element";
    return LOGC_E_CONFIG_XML;
  }

  int32 nRet = 0;
  auto Fail = [&](const std::string& strWhy) {
    *pstrError = strWhy;
    nRet = LOGC_E_CONFIG_VALUE;
  };
  if (const char* sz = mxmlElementGetAttr(pRoot, "threshold")) {
    pConfig->nDefaultThreshold = logc_parse_level(sz);
    if (pConfig->nDefaultThreshold < 0) Fail(std::string("bad threshold '") + sz + "'");
  }
  for (mxml_node_t* p = mxmlFindElement(pRoot, pRoot, "Category", nullptr, nullptr, MXML_DESCEND);
       p != nullptr && nRet == 0;
       p = mxmlFindElement(p, pRoot, "Category", nullptr, nullptr, MXML_DESCEND)) {
    const char* szName = mxmlElementGetAttr(p, "name");
    int32 nLevel = logc_parse_level(mxmlElementGetAttr(p, "threshold"));
    if (szName == nullptr || nLevel < 0)
      Fail("a <Category> needs a name and a threshold of TRACE..FATAL");
    else
      pConfig->mapThresholds[szName] = nLevel;
  }
  mxml_node_t* pFile = mxmlFindElement(pRoot, pRoot, "FileAppender", nullptr, nullptr, MXML_DESCEND);
  if (nRet == 0 && pFile != nullptr && ParseBool(mxmlElementGetAttr(pFile, "enabled"), true)) {
    const char* szFilePath = mxmlElementGetAttr(pFile, "path");
    long long nSizeMb = ParsePositive(mxmlElementGetAttr(pFile, "maxSizeMb"));
    long long nFiles = ParsePositive(mxmlElementGetAttr(pFile, "maxFiles"));
    if (szFilePath == nullptr || *szFilePath == '\0')
      Fail("<FileAppender> needs a path");
    else if (nSizeMb < 0 || nSizeMb > 1024 * 1024 || nFiles < 0 || nFiles > 1000)
      Fail("<FileAppender> needs maxSizeMb (1..1048576) and maxFiles (1..1000)");
    else {
      pConfig->bFileEnabled = true;
      pConfig->strFilePath = szFilePath;
      pConfig->nFileMaxBytes = nSizeMb << 20;
      pConfig->nFileMaxFiles = static_cast<int32>(nFiles);
    }
  }
  mxml_node_t* pConsole =
      mxmlFindElement(pRoot, pRoot, "ConsoleAppender", nullptr, nullptr, MXML_DESCEND);
  if (pConsole != nullptr)
    pConfig->bConsoleEnabled = ParseBool(mxmlElementGetAttr(pConsole, "enabled"), true);
  mxmlDelete(pTree);
  return nRet;
}
