/* Status codes of the service. Every operation returns an int32: 0 for
 * success, otherwise one of these positive six-digit codes, or a code handed
 * up unchanged from a platform library (see each library's header). */
#ifndef ZDHEADERS_INCLUDE_ZD_ERRCODE_H_
#define ZDHEADERS_INCLUDE_ZD_ERRCODE_H_

enum {
  EC_OK = 0,

  /* Used by several modules. */
  EC_NO_MEMORY = 110241,       /* allocation failed, or a caller's buffer is too small */
  EC_NULL_POINTER = 119501,    /* a required pointer argument is null */
  EC_MSG_TOO_SHORT = 116201,   /* message or batch shorter than its contents require */

  /* Configuration file. */
  EC_CFG_OPEN = 110201,        /* configuration file cannot be opened for reading */
  EC_CFG_NOT_XML = 110851,     /* not well-formed XML */
  EC_CFG_MISSING = 110852,     /* Buffer/CacheFile/Send element, or version/name/Path missing */
  EC_CFG_ATTR_MISSING = 110853,/* Prefix/SizeMb/PeriodMs/ConnTimeOutSec/SendTimeOutSec missing */
  EC_CFG_RANGE = 110854,       /* value out of range */
  EC_CFG_TOO_LONG = 110855,    /* value too long */

  /* Record batch decoding. */
  EC_REC_BAD_TYPE = 110653,    /* record type outside 0..7 */
  EC_REC_BAD_LEN = 110654,     /* string or blob longer than 1,000 bytes */

  /* Service lifecycle and connection manager. */
  EC_CACHE_NAME_TOO_LONG = 113201, /* cache file name would exceed 255 characters */
  EC_CTRL_BAD_MSG_LEN = 113202,    /* init message body shorter than 4 bytes */

  /* Cache file. */
  EC_CACHE_EMPTY = 113203,         /* the server's queue is empty */
  EC_CACHE_BUF_SMALL = 113204,     /* caller's buffer smaller than the oldest record */
  EC_CACHE_BAD_REC_LEN = 113206,   /* stored record length is 0 or negative */
  EC_CACHE_INVALID_ARG = 113207,   /* invalid argument */
  EC_CACHE_NO_VICTIM = 113208,     /* no block can be taken from any server */
  EC_CACHE_TOO_LARGE = 113209,     /* existing file larger than the configured size */
  EC_CACHE_BAD_HEADER = 113211,    /* header or server-info chain invalid */
  EC_CACHE_BAD_SRV_COUNT = 113212, /* server-info block holds an invalid entry count */
  EC_CACHE_REC_TOO_LARGE = 113213, /* record larger than the cache file can ever hold */
  EC_CACHE_NO_ROOM = 113214,       /* no block can be made without dropping the record being saved */
  EC_CACHE_BAD_CHAIN = 113215      /* a data chain or idle link is out of range (damaged file) */
};

#endif /* ZDHEADERS_INCLUDE_ZD_ERRCODE_H_ */
