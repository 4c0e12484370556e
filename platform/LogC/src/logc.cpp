// LogC on spdlog: one asynchronous logger whose sinks are the configured
// appenders, plus a synchronous in-memory appender for tests.
//
// Category handles are never freed: a handle stays a valid address for the
// life of the process, so a thread that still holds one after logc_finish
// reads a threshold that lets nothing through instead of freed memory.
#include "logc.h"

#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "logc_config.h"
#include "logc_test.h"
#include "zdos.h"

namespace {

// A threshold above every level: the category logs nothing.
constexpr int32 kThresholdOff = LL_FATAL + 1;
constexpr int32 kLineCapacity = 4096;  // longer messages are cut

struct Category {
  logc_category handle;  // first member: the C API's view of the category
  std::string strName;
};

struct State {
  std::mutex mutex;
  bool bStarted = false;
  std::atomic<bool> bCapture{false};
  LogcConfig config;
  std::string strModule;
  // Read by writers without the mutex; replaced only by init and finish.
  std::atomic<std::shared_ptr<spdlog::logger>> pLogger;
  std::map<std::string, std::unique_ptr<Category>> mapCategories;
  std::vector<LogcCapturedLine> vecCaptured;  // capture mode only
};

State& GetState() {
  static State* pState = new State();  // outlives static destructors of callers
  return *pState;
}

const char* LevelName(int32 nLevel) {
  static const char* const kNames[] = {"TRACE", "DEBUG", "INFO ", "WARN ", "ERROR", "FATAL"};
  return nLevel >= 0 && nLevel <= LL_FATAL ? kNames[nLevel] : "?????";
}

spdlog::level::level_enum SpdLevel(int32 nLevel) {
  switch (nLevel) {
    case LL_TRACE: return spdlog::level::trace;
    case LL_DEBUG: return spdlog::level::debug;
    case LL_INFO: return spdlog::level::info;
    case LL_WARN: return spdlog::level::warn;
    case LL_ERROR: return spdlog::level::err;
    default: return spdlog::level::critical;
  }
}

int32 ThresholdFor(const State& state, const std::string& strName) {
  auto it = state.config.mapThresholds.find(strName);
  return it != state.config.mapThresholds.end() ? it->second : state.config.nDefaultThreshold;
}

const char* BaseName(const char* szPath) {
  if (szPath == nullptr) return "?";
  const char* p = strrchr(szPath, '/');
  return p != nullptr ? p + 1 : szPath;
}

// Creates the directory that will hold the log file.
int32 CreateParentDir(const std::string& strPath) {
  size_t nSlash = strPath.rfind('/');
  if (nSlash == std::string::npos || nSlash == 0) return 0;
  return os_dir_create(strPath.substr(0, nSlash).c_str());
}

int32 StartLocked(State& state) {
  std::vector<spdlog::sink_ptr> vecSinks;
  if (state.config.bFileEnabled) {
    if (CreateParentDir(state.config.strFilePath) != 0) return LOGC_E_APPENDER;
    // spdlog reports a file it cannot open by throwing; this is the one place
    // where a library exception is turned into a status.
    try {
      vecSinks.push_back(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
          state.config.strFilePath, static_cast<size_t>(state.config.nFileMaxBytes),
          static_cast<size_t>(state.config.nFileMaxFiles)));
    } catch (const spdlog::spdlog_ex&) {
      return LOGC_E_APPENDER;
    }
  }
  if (state.config.bConsoleEnabled)
    vecSinks.push_back(std::make_shared<spdlog::sinks::stderr_sink_mt>());
  // One worker thread; a full queue blocks the writer rather than drop lines.
  spdlog::init_thread_pool(8192, 1);
  auto pLogger = std::make_shared<spdlog::async_logger>(
      state.strModule, vecSinks.begin(), vecSinks.end(), spdlog::thread_pool(),
      spdlog::async_overflow_policy::block);
  pLogger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%t] %v");
  pLogger->set_level(spdlog::level::trace);
  pLogger->flush_on(spdlog::level::warn);
  // Lines below WARN reach the file within a second, for operators who
  // follow the log; the periodic flusher works on registered loggers.
  spdlog::register_logger(pLogger);
  spdlog::flush_every(std::chrono::seconds(1));
  state.pLogger.store(pLogger);
  return 0;
}

// Gives every existing category the threshold of the current configuration.
void ApplyThresholdsLocked(State& state) {
  for (auto& [strName, pCategory] : state.mapCategories)
    pCategory->handle.nThreshold = ThresholdFor(state, strName);
}

}  // namespace

int32 logc_init(const char* szConfigPath, const char* szModule) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.bStarted) return LOGC_E_ALREADY;
  if (szConfigPath == nullptr) return LOGC_E_CONFIG_OPEN;
  LogcConfig config;
  std::string strError;
  int32 nRet = logc_load_config(szConfigPath, &config, &strError);
  if (nRet != 0) {
    fprintf(stderr, "LogC: %s\n", strError.c_str());
    return nRet;
  }
  state.config = config;
  state.strModule = szModule != nullptr ? szModule : "";
  state.bCapture = false;
  nRet = StartLocked(state);
  if (nRet != 0) {
    fprintf(stderr, "LogC: cannot open log file %s\n", config.strFilePath.c_str());
    state.pLogger.store(nullptr);
    return nRet;
  }
  state.bStarted = true;
  ApplyThresholdsLocked(state);
  return 0;
}

int32 logc_init_capture(int32 nThreshold) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.bStarted) return LOGC_E_ALREADY;
  state.config = LogcConfig();
  state.config.nDefaultThreshold = nThreshold;
  state.bCapture = true;
  state.vecCaptured.clear();
  state.bStarted = true;
  ApplyThresholdsLocked(state);
  return 0;
}

LOGC_CATEGORY logc_get_category(const char* szName) {
  if (szName == nullptr) return nullptr;
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (!state.bStarted) return nullptr;
  std::unique_ptr<Category>& pCategory = state.mapCategories[szName];
  if (!pCategory) {
    pCategory = std::make_unique<Category>();
    pCategory->strName = szName;
    pCategory->handle.nThreshold = ThresholdFor(state, szName);
  }
  return &pCategory->handle;
}

void logc_write_log(LOGC_CATEGORY cat, int32 nLevel, int32 nCode, const char* szFile,
                    const char* szFunc, int32 nLine, const char* szFormat, ...) {
  if (cat == nullptr || cat->nThreshold > nLevel || szFormat == nullptr) return;
  const Category* pCategory = reinterpret_cast<const Category*>(cat);

  char szMessage[kLineCapacity];
  va_list args;
  va_start(args, szFormat);
  vsnprintf(szMessage, sizeof(szMessage), szFormat, args);
  va_end(args);

  State& state = GetState();
  if (state.bCapture) {
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.bCapture)
      state.vecCaptured.push_back({nLevel, nCode, pCategory->strName, szMessage});
    return;
  }
  std::shared_ptr<spdlog::logger> pLogger = state.pLogger.load();
  if (!pLogger) return;
  pLogger->log(SpdLevel(nLevel), "{} {} code={} {}:{} {}: {}", LevelName(nLevel),
               pCategory->strName, nCode, BaseName(szFile), nLine, szFunc ? szFunc : "?",
               szMessage);
}

int32 logc_finish(void) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (auto& [strName, pCategory] : state.mapCategories)
    pCategory->handle.nThreshold = kThresholdOff;
  if (std::shared_ptr<spdlog::logger> pLogger = state.pLogger.exchange(nullptr)) {
    // An async flush is only queued: shut the thread pool down first (it
    // drains the queue and joins its worker), and only then let the logger
    // and its sinks go, on this thread.
    pLogger->flush();
    spdlog::shutdown();
    pLogger.reset();
  }
  state.bStarted = false;
  state.bCapture = false;
  return 0;
}

std::vector<LogcCapturedLine> logc_capture_take() {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  std::vector<LogcCapturedLine> vecLines;
  vecLines.swap(state.vecCaptured);
  return vecLines;
}

bool logc_capture_has(int32 nLevel, int32 nCode, const char* szText) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (const LogcCapturedLine& line : state.vecCaptured)
    if (line.nLevel == nLevel && (nCode < 0 || line.nCode == nCode) &&
        (szText == nullptr || line.strMessage.find(szText) != std::string::npos))
      return true;
  return false;
}
