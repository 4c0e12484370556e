// The reference database server: speaks the client library's protocol on a
// loopback TCP port, stores what it receives (CRefStore), and injects faults
// on request. A thread per connection; one accept thread.
//
// Control: when a control port is configured, every line sent to it is one
// command and gets one reply line, "ok ..." or "error ...". Commands (the
// command-line flags take the same words with "--"):
//   refuse-connections on|off   accept, then reset at once
//   refuse-logins on|off        every login gets ZD3_E_LOGIN_REFUSED
//   fail-every N[:CODE]         every Nth save (counted over all connections)
//                               is answered with CODE (default 110707), nothing stored; 0 = off
//   fail-tags LIST[:CODE]|off   records of these tags fail with CODE (default
//                               110350), the others are stored, the call
//                               answers 119609; LIST is "5,7,10-20"
//   delay MS                    answer every request MS milliseconds late
//                               (the records are stored before the wait)
//   close-every N               every Nth save: close the connection without
//                               answering, nothing stored; 0 = off
//   reset                       all faults off
//   faults                      print the fault settings
//   stats                       print the counters
//   ping                        "ok"
#ifndef TOOLS_ZDREFSERVER_REFSERVER_H_
#define TOOLS_ZDREFSERVER_REFSERVER_H_

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "refstore.h"
#include "zd_types.h"

struct SRefFaults {
  bool bRefuseConnections = false;
  bool bRefuseLogins = false;
  uint32 nFailEvery = 0;
  int32 nFailCode = 110707;
  std::vector<uint32> vFailTags;  // sorted
  int32 nTagFailCode = 110350;
  uint32 nDelayMs = 0;
  uint32 nCloseEvery = 0;
};

struct SRefServerConfig {
  std::string strListen = "127.0.0.1";
  uint16 nPort = 0;                             // 0: the kernel picks one (see Port())
  int32 nControlPort = -1;                      // -1: no control port; 0: the kernel picks one
  std::string strDbPath;                        // empty: counting mode, nothing stored
  bool bTruncate = false;                       // empty the database at start
  std::map<std::string, std::string> mapUsers;  // empty: no credentials needed
  SRefFaults faults;
};

struct SRefStats {
  uint64 nConnections = 0;
  uint64 nLogins = 0;
  uint64 nLoginsRefused = 0;
  uint64 nSaves = 0;    // save requests received intact
  uint64 nRecords = 0;  // records in them
  uint64 nStored = 0;   // records stored (or counted)
  uint64 nFaults = 0;   // requests answered or closed by a fault
};

class CRefServer {
 public:
  CRefServer() = default;
  ~CRefServer() { Stop(); }
  CRefServer(const CRefServer&) = delete;
  CRefServer& operator=(const CRefServer&) = delete;

  // Opens the store, binds the ports and starts the accept thread.
  // Returns 0, ZD3_E_STORAGE_UNAVAILABLE, or an errno of bind/listen.
  int32 Start(const SRefServerConfig& config);
  // Closes the ports, ends every connection, joins all threads and closes
  // the store. Safe to call twice.
  void Stop();

  uint16 Port() const { return m_nPort; }
  uint16 ControlPort() const { return m_nControlPort; }
  // Applies one control command (see above); returns the reply line.
  std::string Control(const std::string& strLine);
  // Counters since the last Start (stored: all rows in the database).
  SRefStats Stats() const;
  SRefFaults Faults() const;

 private:
  struct SConn {
    int hSocket = -1;
    bool bControl = false;
    std::thread thread;
    std::atomic<bool> bDone{false};
  };
  struct SSession;

  void AcceptLoop();
  void ServeData(SConn* pConn);
  void ServeControl(SConn* pConn);
  void ReapConnections(bool bAll);
  bool Sleep(uint32 nMs);
  bool HandleSave(SSession& s, const uint8* pBody, size_t nBody, uint32 nId);

  SRefServerConfig m_config;
  CRefStore m_store;
  int m_hListen = -1;
  int m_hControl = -1;
  int m_hWake[2] = {-1, -1};  // pipe that wakes the accept loop at Stop
  uint16 m_nPort = 0;
  uint16 m_nControlPort = 0;
  std::thread m_acceptThread;
  std::atomic<bool> m_bStop{false};
  bool m_bStarted = false;

  mutable std::mutex m_mtxFaults;
  SRefFaults m_faults;

  std::mutex m_mtxConns;
  std::list<std::unique_ptr<SConn>> m_conns;

  std::atomic<uint64> m_nConnections{0}, m_nLogins{0}, m_nLoginsRefused{0}, m_nSaves{0},
      m_nRecords{0}, m_nFaults{0};
};

// Parsers shared with the command line: a decimal number, and a tag list
// "5,7,10-20" (sorted, duplicates removed, at most 1,000,000 tags).
bool refserver_parse_u64(const std::string& s, uint64* pn);
bool refserver_parse_tag_list(const std::string& s, std::vector<uint32>* pv);

#endif  // TOOLS_ZDREFSERVER_REFSERVER_H_
