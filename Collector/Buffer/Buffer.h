// CBuffer: the service object. Holds the configuration and brings the shared
// facilities up and down in a fixed order.
#ifndef COLLECTOR_BUFFER_BUFFER_H_
#define COLLECTOR_BUFFER_BUFFER_H_

#include "APIConnector.h"
#include "CacheFile.h"
#include "logc.h"
#include "proccomm.h"
#include "zd_types.h"
#include "zdos.h"

struct CBufferConfigProbe;  // test access to the loaded values

class CBuffer {
 public:
  CBuffer();
  CBuffer(const CBuffer&) = delete;
  CBuffer& operator=(const CBuffer&) = delete;

  // The whole start-up short of the control thread, in order: configuration,
  // single-instance guard, cache directory, logging, shared memory, cache
  // file, connection manager settings. Returns the first failure's status;
  // Release undoes whatever was done.
  int32 Init();
  // Starts the control thread.
  int32 Start();
  // Stops the control thread and the data handler.
  int32 Stop();
  // Releases the facilities; safe after any partial Init. Always 0.
  int32 Release();

  // Reads ../config/ZD3Buffer.xml (relative to the working directory) into
  // the members below. Returns 0 or the first failure's status; values
  // stored before the failure keep their new contents.
  int32 LoadConfig();

 private:
  friend struct CBufferConfigProbe;

  int32 m_nCacheFileSize;        // cache file size, MB (SizeMb)
  int32 m_nSendPerid;            // send period, ms (PeriodMs)
  int32 m_nSendTimeout;          // server request timeout, s (SendTimeOutSec)
  int32 m_nConnectTimeout;       // connection timeout, s (ConnTimeOutSec)
  char m_szCacheFilePath[256];   // cache directory, ends in '/' or '\'
  char m_szCacheFilePrefix[256]; // cache file name prefix
  char m_szVersion[64];          // version text handed to the cache file
  char m_szProcName[256];        // process name: shared memory and guard names
  int32 m_nMemSizeMB;            // shared memory of the queues, MB
  char m_szCacheFileName[256];   // full cache file name
  LOGC_CATEGORY m_cat;           // "Zandor.Buffer"
  SemaHandle m_hSema;            // single-instance guard; -1: none
  bool m_bSemaAquired;           // this process holds the guard
  ProcCommHandle m_hProComm;     // shared-memory queues instance
  CCacheFile m_cacheFile;
  CAPIConnector m_apiConnector;
};

#endif  // COLLECTOR_BUFFER_BUFFER_H_
