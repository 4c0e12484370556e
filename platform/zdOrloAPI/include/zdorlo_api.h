/* zdOrloAPI: the database server's client library.
 *
 * One server session per process. Every call is safe from any thread; calls
 * are serialised on one lock, so a call waits while another one is running
 * (at most the request timeout, or the connection timeout for nt3_connect).
 *
 * Session recovery: nt3_connect remembers the addresses and sc3_login the
 * credentials of its last success. When a later call finds the session
 * broken (server restarted, connection reset, an earlier request timed
 * out), the library reconnects (primary, then backup), logs in again with
 * the remembered credentials, and only then sends, all within the request
 * timeout. A request is never sent twice by the library: a request that was
 * sent but not answered returns ZD3_E_CONNECTION_LOST or
 * ZD3_E_REQUEST_TIMEOUT, and the next call recovers the session.
 * nt3_disconnect forgets addresses and credentials.
 *
 * Result codes: 0 for success, otherwise one of the ZD3_E_* codes below.
 * The ranges are chosen for callers that keep data for a later attempt on
 * codes 110330..110376 (network and session), 110707 and 119632 and drop it
 * on anything else. */
#ifndef PLATFORM_ZDORLOAPI_INCLUDE_ZDORLO_API_H_
#define PLATFORM_ZDORLOAPI_INCLUDE_ZDORLO_API_H_

#include "zd3_record.h"
#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  char szAddress[512];    /* primary server, IPv4 dotted-decimal or host name */
  uint16 nPort;           /* primary port */
  char szBakAddress[512]; /* backup server; empty for none */
  uint16 nBakPort;        /* backup port; 0 for none */
  int32 nTimeout;         /* connection timeout per address, seconds (>= 1) */
} ZD3Connection;

enum {
  ZD3_OK = 0,

  /* Network and session: the request may succeed when sent again later. */
  ZD3_E_NOT_CONNECTED = 110331,   /* no session and nothing to recover it from */
  ZD3_E_CONNECT_FAILED = 110332,  /* every address refused or was unreachable */
  ZD3_E_CONNECT_TIMEOUT = 110333, /* no address answered within the timeout */
  ZD3_E_CONNECTION_LOST = 110334, /* connection closed or reset during a request */
  ZD3_E_REQUEST_TIMEOUT = 110335, /* no answer within the request timeout */
  ZD3_E_PROTOCOL = 110336,        /* the server sent a malformed frame */
  ZD3_E_RELOGIN_REFUSED = 110337, /* session recovered, but the saved login was refused */
  ZD3_E_RECORD_TIMEOUT = 110350,  /* per record: its save timed out on the server */

  /* Whole-call results of the server that may pass. */
  ZD3_E_SERVER_BUSY = 110707,
  ZD3_E_STORAGE_UNAVAILABLE = 119632,

  /* Some records of a save failed; pErrs tells which and why. */
  ZD3_E_SOME_RECORDS_FAILED = 119609,

  /* Permanent: sending the same request again gives the same answer. */
  ZD3_E_VERSION = 110380,           /* the server speaks another protocol version */
  ZD3_E_NULL_POINTER = 119501,      /* a required pointer is null */
  ZD3_E_LOGIN_REFUSED = 119410,     /* wrong user name or password */
  ZD3_E_NOT_LOGGED_IN = 119411,     /* the server requires a login first */
  ZD3_E_UNKNOWN_TAG = 119611,       /* per record: the server does not know the tag */
  ZD3_E_BAD_VALUE = 119612,         /* per record: the server refuses the value */
  ZD3_E_BAD_REQUEST = 119613,       /* the server found the request malformed */
  ZD3_E_INVALID_ARG = 119620,       /* bad count, type, string length or timeout */
  ZD3_E_REQUEST_TOO_LARGE = 119621, /* the encoded request exceeds the frame limit */
  ZD3_E_NO_MEMORY = 110241          /* the encode buffer could not grow */
};

/* Option bits of ut3_set_api_option. */
enum {
  /* Recover a broken session inside the next call (the default). Without
   * it a broken session stays broken until nt3_connect. */
  ZD3_OPTION_AUTO_RECOVER = 1
};

/* Opens the session: the primary address, then the backup (when its address
 * is not empty and its port is not 0), each bounded by pConn->nTimeout
 * seconds for the TCP connect and the protocol greeting. An open session is
 * closed first. Returns 0, ZD3_E_CONNECT_FAILED, ZD3_E_CONNECT_TIMEOUT,
 * ZD3_E_VERSION, ZD3_E_NULL_POINTER or ZD3_E_INVALID_ARG. */
int32 nt3_connect(ZD3Connection* pConn);

/* Closes the session and forgets addresses and credentials. Always 0. */
int32 nt3_disconnect(void);

/* Logs the session in; on success the credentials are kept for recovery.
 * ZD3_E_LOGIN_REFUSED on wrong credentials. */
int32 sc3_login(const char* szUser, const char* szPassword);

/* Sets the option bits (ZD3_OPTION_*); unknown bits give ZD3_E_INVALID_ARG. */
int32 ut3_set_api_option(int32 nOption);

/* Bounds every later request, session recovery included, to nSeconds
 * (1 to 86,400; default 30). */
int32 ut3_set_request_timeout(int32 nSeconds);

/* Saves nCount records (1 to 1,000,000) in one request: pIds[i] is the tag
 * of pRecs[i]. pErrs receives one code per record: all 0 on success; on
 * ZD3_E_SOME_RECORDS_FAILED the failed records' codes (for example
 * ZD3_E_RECORD_TIMEOUT, ZD3_E_UNKNOWN_TAG) and 0 for the saved ones; on any
 * other failure of the whole call every entry holds the call's result.
 * Records are checked before anything is sent: a type outside 0..7, a string
 * or blob longer than 1,000 bytes or with a null buffer gives
 * ZD3_E_INVALID_ARG. */
int32 sn3_save_tags_disorder_snapshots(int32 nCount, uint32* pIds, ZD3Record* pRecs, int32* pErrs);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* PLATFORM_ZDORLOAPI_INCLUDE_ZDORLO_API_H_ */
