/* LogC: the logging library, on spdlog.
 *
 * A category is a named handle whose first int32 is its threshold: a message
 * is written only when the handle is not null and the threshold is not above
 * the message's level. Callers test that themselves (LOGC_WRITE does) so that
 * a filtered message costs one load and one compare.
 *
 * Configured by an XML file (LogClient.xml, see the README): per-category
 * thresholds and the appenders (a size-rotating file, the console). Writing
 * is asynchronous: a line is formatted on the caller's thread and handed to a
 * background thread. Thread-safe after logc_init. */
#ifndef PLATFORM_LOGC_INCLUDE_LOGC_H_
#define PLATFORM_LOGC_INCLUDE_LOGC_H_

#include "zd_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  LL_TRACE = 0,
  LL_DEBUG = 1,
  LL_INFO = 2,
  LL_WARN = 3,
  LL_ERROR = 4,
  LL_FATAL = 5
} LOGC_LEVEL;

/* Handle of a category; the first member is the threshold. Null: nothing is
 * logged through it. Valid until logc_finish. */
typedef struct logc_category {
  int32 nThreshold;
} *LOGC_CATEGORY;

/* Statuses of logc_init. */
enum {
  LOGC_E_ALREADY = 117001,  /* logc_init called twice without logc_finish */
  LOGC_E_CONFIG_OPEN = 117002, /* configuration file cannot be opened */
  LOGC_E_CONFIG_XML = 117003,  /* configuration file is not well-formed XML or lacks <LogClient> */
  LOGC_E_CONFIG_VALUE = 117004,/* a bad level, size or count in the configuration */
  LOGC_E_APPENDER = 117005     /* the log file cannot be created */
};

/* Reads the configuration and starts the appenders. szModule names the
 * program in every line. */
int32 logc_init(const char* szConfigPath, const char* szModule);

/* The category of that name, created on first use with the configuration's
 * threshold for it (or the default threshold). Null before logc_init or
 * after logc_finish. */
LOGC_CATEGORY logc_get_category(const char* szName);

/* Formats and writes one line: time (ms), level, thread id, category, status
 * code, file:line, function and the message. Does the threshold test itself
 * too, so a direct call is always safe. */
void logc_write_log(LOGC_CATEGORY cat, int32 nLevel, int32 nCode, const char* szFile,
                    const char* szFunc, int32 nLine, const char* szFormat, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 7, 8)))
#endif
    ;

/* Flushes and stops the appenders; every category handle becomes invalid.
 * Safe to call when logc_init failed or never ran. */
int32 logc_finish(void);

/* Logs through cat when its threshold lets the level through. */
#define LOGC_WRITE(cat, level, code, ...)                                           \
  do {                                                                              \
    LOGC_CATEGORY zd_logc_cat_ = (cat);                                             \
    if (zd_logc_cat_ != 0 && zd_logc_cat_->nThreshold <= (level))                   \
      logc_write_log(zd_logc_cat_, (level), (code), __FILE__, __func__, __LINE__,   \
                     __VA_ARGS__);                                                  \
  } while (0)

#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* PLATFORM_LOGC_INCLUDE_LOGC_H_ */
