#include "collect_session.h"

#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "protocol/buffer_collector.h"

namespace {

int64 now_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Back-off while the pool is full: short at first (the service usually
// frees room within a send period), capped so that a drained pool is noticed
// within a few milliseconds.
constexpr useconds_t kBackoffFirstUs = 200;
constexpr useconds_t kBackoffMaxUs = 20000;
constexpr int32 kAttachPollMs = 100;

}  // namespace

CCollectSession::CCollectSession(const SCollectTarget& target, const std::atomic<bool>* pStop)
    : m_target(target), m_pStop(pStop) {}

CCollectSession::~CCollectSession() { Close(); }

void CCollectSession::Close() {
  if (m_hData != nullptr) proccomm_unreg(m_hInstance, m_nDataQueueId, m_hData);
  m_hData = nullptr;
  if (m_hControl != nullptr) proccomm_unreg(m_hInstance, BUFFER_CTRL_QUEUE_ID, m_hControl);
  m_hControl = nullptr;
  if (m_hInstance != nullptr) proccomm_release(m_hInstance);
  m_hInstance = nullptr;
  m_nDataQueueId = -1;
}

int32 CCollectSession::Attach(int32 nWaitMs) {
  int64 nDeadline = now_ms() + nWaitMs;
  for (;;) {
    int32 nRet = proccomm_attach(m_target.szInstance, &m_hInstance);
    if (nRet != EC_RD_PROCCOMM_GONE) {
      if (nRet == 0) nRet = proccomm_reg(m_hInstance, BUFFER_CTRL_QUEUE_ID, &m_hControl);
      return nRet;
    }
    if (Stopped()) return ZDCOLLECT_E_STOPPED;
    if (now_ms() >= nDeadline) return ZDCOLLECT_E_NO_SERVICE;
    usleep(kAttachPollMs * 1000);
  }
}

int32 CCollectSession::SendWithRoom(ProcCommQueueHandle hQueue, const char* pMsg, int32 nLen) {
  useconds_t nPauseUs = kBackoffFirstUs;
  for (;;) {
    int32 nRet = proccomm_send(hQueue, pMsg, nLen);
    if (nRet != EC_RD_PROCCOMM_NO_SPACE) return nRet;
    m_stats.nRefused.fetch_add(1, std::memory_order_relaxed);
    if (Stopped()) return ZDCOLLECT_E_STOPPED;
    usleep(nPauseUs);
    nPauseUs = nPauseUs * 2 > kBackoffMaxUs ? kBackoffMaxUs : nPauseUs * 2;
  }
}

// One announcement: a fresh reply queue, the init message, one bounded wait
// for the reply; then the login and the data queue.
int32 CCollectSession::Announce() {
  int32 nReplyId = 0;
  ProcCommQueueHandle hReply = nullptr;
  int32 nRet = proccomm_get_unused_queueid(m_hInstance, &nReplyId);
  if (nRet == 0) nRet = proccomm_reg(m_hInstance, nReplyId, &hReply);
  if (nRet != 0) return nRet;

  char msg[BUFFER_CTRL_MSG_MAX_LEN];
  int32 nMsgLen = 0;
  nRet = zdc_build_init_msg(m_target.szIP, m_target.nPort, m_target.szBakIP, m_target.nBakPort,
                            nReplyId, msg, sizeof(msg), &nMsgLen);
  if (nRet == 0) nRet = SendWithRoom(m_hControl, msg, nMsgLen);
  char reply[BUFFER_CTRL_MSG_MAX_LEN];
  int32 nReplyLen = sizeof(reply);
  if (nRet == 0) {
    nRet =
        proccomm_recv(hReply, reply, &nReplyLen, 1, static_cast<uint32>(m_target.nInitTimeoutMs));
    if (nRet == EC_RD_PROCCOMM_RECV_TIMEOUT) nRet = ZDCOLLECT_E_INIT_TIMEOUT;
  }
  proccomm_unreg(m_hInstance, nReplyId, hReply);
  int32 nDataId = -1;
  if (nRet == 0) nRet = zdc_parse_init_reply(reply, nReplyLen, &m_nInitRetCode, &nDataId);
  if (nRet == 0 && m_nInitRetCode != 0) nRet = ZDCOLLECT_E_INIT_REFUSED;
  if (nRet == 0 && m_target.bLogin) {
    nRet = zdc_build_login_msg(m_target.szUser, m_target.szPasswd, msg, sizeof(msg), &nMsgLen);
    if (nRet == 0) nRet = SendWithRoom(m_hControl, msg, nMsgLen);
  }
  if (nRet == 0) nRet = proccomm_reg(m_hInstance, nDataId, &m_hData);
  if (nRet == 0) m_nDataQueueId = nDataId;
  return nRet;
}

int32 CCollectSession::Open() {
  Close();
  int32 nRet = Attach(m_target.nAttachWaitMs);
  if (nRet == 0) nRet = Announce();
  if (nRet != 0) Close();
  return nRet;
}

int32 CCollectSession::Send(const char* pBatch, int32 nLen, uint16 nRecords) {
  bool bResend = false;
  for (;;) {
    int32 nRet = m_hData != nullptr ? SendWithRoom(m_hData, pBatch, nLen) : EC_RD_PROCCOMM_GONE;
    if (nRet == 0) {
      m_stats.nBatches.fetch_add(1, std::memory_order_relaxed);
      m_stats.nRecords.fetch_add(nRecords, std::memory_order_relaxed);
      m_stats.nBytes.fetch_add(static_cast<uint64>(nLen), std::memory_order_relaxed);
      if (bResend) m_stats.nRetries.fetch_add(1, std::memory_order_relaxed);
      return 0;
    }
    if (nRet != EC_RD_PROCCOMM_GONE) return nRet;
    // The service went away: the same batch goes to the next instance.
    fprintf(stderr, "zdcollect: service instance gone, re-attaching to '%s'\n",
            m_target.szInstance);
    Close();
    nRet = Attach(m_target.nReattachWaitMs);
    // The new instance may itself vanish while we announce: try again.
    if (nRet == 0) nRet = Announce();
    if (nRet == EC_RD_PROCCOMM_GONE) continue;
    if (nRet != 0) {
      Close();
      return nRet;
    }
    m_stats.nReattaches.fetch_add(1, std::memory_order_relaxed);
    fprintf(stderr, "zdcollect: re-announced %s:%u, data queue %d\n", m_target.szIP, m_target.nPort,
            m_nDataQueueId);
    bResend = true;
  }
}

int32 CCollectSession::SendControlRaw(const char* pMsg, int32 nLen) {
  int32 nRet = m_hControl == nullptr ? Attach(m_target.nAttachWaitMs) : 0;
  if (nRet == 0) nRet = SendWithRoom(m_hControl, pMsg, nLen);
  return nRet;
}

int32 CCollectSession::WaitDrained(int32 nTimeoutMs) {
  if (m_hInstance == nullptr) return EC_RD_PROCCOMM_INVALID_ARG;
  int64 nDeadline = now_ms() + nTimeoutMs;
  for (;;) {
    ProcCommStats st{};
    int32 nRet = proccomm_get_stats(m_hInstance, &st);
    if (nRet != 0) return nRet;
    if (st.nFreeBlocks == st.nTotalBlocks) return 0;
    if (Stopped()) return ZDCOLLECT_E_STOPPED;
    if (now_ms() >= nDeadline) return EC_RD_PROCCOMM_RECV_TIMEOUT;
    usleep(10000);
  }
}
