// CCollectSession: one collector's link to the buffer service: attach to the
// service's shared-memory instance, announce the server on the control
// queue, optionally log in, and send batches to the data queue the service
// named, riding out a full pool and a restarted service.
//
// Delivery promise: Send returns 0 only when the service's instance accepted
// the whole batch. A batch refused for lack of room is retried after a short
// back-off until it is accepted; when the instance is gone (the service
// stopped or died) the session re-attaches, announces again and sends the
// same batch to the new data queue. Nothing accepted is ever sent twice by
// this side. A batch that sat in the old instance's queue when the service
// died is lost with the instance: only the service's cache file outlives it.
#ifndef TOOLS_ZDCOLLECT_COLLECT_SESSION_H_
#define TOOLS_ZDCOLLECT_COLLECT_SESSION_H_

#include <atomic>

#include "proccomm.h"
#include "zd_types.h"

// Statuses of this tool, besides the zdProcComm and zdc_ codes it hands up.
enum {
  ZDCOLLECT_E_INIT_TIMEOUT = 116701,  // no init reply within the time limit
  ZDCOLLECT_E_INIT_REFUSED = 116702,  // a 4-byte init reply: see InitRetCode()
  ZDCOLLECT_E_STOPPED = 116703,       // the stop flag was raised while waiting
  ZDCOLLECT_E_NO_SERVICE = 116704     // no live instance within the attach wait
};

struct SCollectTarget {
  char szInstance[256] = "zdBuffer";  // the service's `name`
  char szIP[16] = "127.0.0.1";
  uint16 nPort = 6320;
  char szBakIP[16] = "";
  uint16 nBakPort = 0;
  bool bLogin = false;  // send a login after every announcement
  char szUser[64] = "";
  char szPasswd[128] = "";
  int32 nInitTimeoutMs = 5000;    // wait for one init reply
  int32 nAttachWaitMs = 10000;    // first attach: wait this long for the service
  int32 nReattachWaitMs = 60000;  // after the service went away
};

// Counters, readable from another thread (progress line) while sending.
struct SSendStats {
  std::atomic<uint64> nBatches{0};     // batches accepted
  std::atomic<uint64> nRecords{0};     // records in them
  std::atomic<uint64> nBytes{0};       // bytes in them
  std::atomic<uint64> nRefused{0};     // sends refused for lack of room
  std::atomic<uint64> nRetries{0};     // batches sent again after a re-attach
  std::atomic<uint64> nReattaches{0};  // re-attaches after the service went away
};

class CCollectSession {
 public:
  // pStop: raised (e.g. by a signal handler) to end every wait early.
  CCollectSession(const SCollectTarget& target, const std::atomic<bool>* pStop);
  ~CCollectSession();
  CCollectSession(const CCollectSession&) = delete;
  CCollectSession& operator=(const CCollectSession&) = delete;

  // Attaches (waiting up to nAttachWaitMs for the service), announces, logs
  // in when asked, and registers the data queue.
  int32 Open();
  // Sends one batch of nRecords records; see the delivery promise above.
  int32 Send(const char* pBatch, int32 nLen, uint16 nRecords);
  // Attaches and sends pMsg raw on the control queue, no announcement and no
  // reply awaited (test aid for malformed or out-of-order control messages).
  int32 SendControlRaw(const char* pMsg, int32 nLen);
  // Waits until the instance's pool is empty again (every message taken by
  // a receiver), up to nTimeoutMs. 0 when drained.
  int32 WaitDrained(int32 nTimeoutMs);
  void Close();

  int32 DataQueueId() const { return m_nDataQueueId; }
  int32 InitRetCode() const { return m_nInitRetCode; }
  const SSendStats& Stats() const { return m_stats; }

 private:
  int32 Attach(int32 nWaitMs);
  int32 Announce();
  int32 SendWithRoom(ProcCommQueueHandle hQueue, const char* pMsg, int32 nLen);
  bool Stopped() const { return m_pStop != nullptr && m_pStop->load(std::memory_order_relaxed); }

  SCollectTarget m_target;
  const std::atomic<bool>* m_pStop;
  ProcCommHandle m_hInstance = nullptr;
  ProcCommQueueHandle m_hControl = nullptr;
  ProcCommQueueHandle m_hData = nullptr;
  int32 m_nDataQueueId = -1;
  int32 m_nInitRetCode = 0;
  SSendStats m_stats;
};

#endif  // TOOLS_ZDCOLLECT_COLLECT_SESSION_H_
