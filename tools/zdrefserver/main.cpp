// zdrefserver: the reference database server for tests, demos and
// benchmarks. Usage: see print_usage() and docs/refserver.md.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "refreport.h"
#include "refserver.h"

namespace {

constexpr uint16 kDefaultPort = 6320;

void print_usage() {
  std::fputs(
      "usage:\n"
      "  zdrefserver [serve] (--db FILE [--truncate] | --count-only) [--listen ADDR]\n"
      "              [--port P (default 6320, 0: any)] [--control-port P]\n"
      "              [--user NAME:PASSWORD]... [--users FILE]\n"
      "              [--refuse-connections] [--refuse-logins] [--fail-every N[:CODE]]\n"
      "              [--fail-tags LIST[:CODE]] [--delay MS] [--close-every N] [--quiet]\n"
      "  zdrefserver dump --db FILE [--tag N]\n"
      "  zdrefserver report --db FILE [--tags LIST] [--first N --last N] [--gaps]\n"
      "  zdrefserver ctl --control-port P COMMAND [ARG]\n",
      stderr);
}

bool add_user(const std::string& s, SRefServerConfig* pConfig) {
  size_t nSep = s.find(':');
  if (nSep == std::string::npos) nSep = s.find(' ');
  if (nSep == std::string::npos || nSep == 0) return false;
  pConfig->mapUsers[s.substr(0, nSep)] = s.substr(nSep + 1);
  return true;
}

bool read_users(const char* szPath, SRefServerConfig* pConfig) {
  std::ifstream in(szPath);
  if (!in) return false;
  std::string strLine;
  while (std::getline(in, strLine)) {
    if (strLine.empty() || strLine[0] == '#') continue;
    if (!add_user(strLine, pConfig)) return false;
  }
  return true;
}

int run_serve(int argc, char** argv) {
  // Blocked from the start, so that a stop request during start-up waits for
  // sigwait below and still closes the database properly; the worker
  // threads inherit the mask and never take these signals.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  SRefServerConfig config;
  config.nPort = kDefaultPort;
  CRefServer server;
  std::vector<std::string> vFaults;  // applied through the control commands
  bool bCountOnly = false;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    const bool bHasArg = i + 1 < argc;
    const std::string v = bHasArg ? argv[i + 1] : "";
    uint64 n = 0;
    if (a == "--db" && bHasArg) {
      config.strDbPath = v;
    } else if (a == "--truncate") {
      config.bTruncate = true;
    } else if (a == "--count-only") {
      bCountOnly = true;
      continue;
    } else if (a == "--listen" && bHasArg) {
      config.strListen = v;
    } else if (a == "--port" && bHasArg && refserver_parse_u64(v, &n) && n <= 65535) {
      config.nPort = static_cast<uint16>(n);
    } else if (a == "--control-port" && bHasArg && refserver_parse_u64(v, &n) && n <= 65535) {
      config.nControlPort = static_cast<int32>(n);
    } else if (a == "--user" && bHasArg && add_user(v, &config)) {
    } else if (a == "--users" && bHasArg && read_users(v.c_str(), &config)) {
    } else if (a == "--refuse-connections" || a == "--refuse-logins") {
      vFaults.push_back(a.substr(2) + " on");
      continue;
    } else if ((a == "--fail-every" || a == "--fail-tags" || a == "--delay" ||
                a == "--close-every") &&
               bHasArg) {
      vFaults.push_back(a.substr(2) + " " + v);
    } else if (a == "--quiet") {
      spdlog::set_level(spdlog::level::warn);
      continue;
    } else {
      std::fprintf(stderr, "bad argument: %s\n", a.c_str());
      print_usage();
      return 2;
    }
    ++i;  // the flag's value
  }
  if (bCountOnly == !config.strDbPath.empty()) {
    std::fputs("give exactly one of --db FILE and --count-only\n", stderr);
    return 2;
  }
  // Faults are parsed by the control grammar before the ports open, so a
  // typo stops the start and the first connection already sees them.
  {
    CRefServer parser;
    for (const std::string& f : vFaults) {
      const std::string r = parser.Control(f);
      if (r.rfind("ok", 0) != 0) {
        std::fprintf(stderr, "--%s: %s\n", f.c_str(), r.c_str());
        return 2;
      }
    }
    config.faults = parser.Faults();
  }

  const int32 nRet = server.Start(config);
  if (nRet != 0) return 1;
  std::printf("LISTEN %u\n", server.Port());
  if (config.nControlPort >= 0) std::printf("CONTROL %u\n", server.ControlPort());
  std::fflush(stdout);
  int nSig = 0;
  sigwait(&set, &nSig);
  spdlog::info("signal {}, shutting down", nSig);
  const SRefStats st = server.Stats();
  server.Stop();
  spdlog::info("saves {} records {} stored {}", st.nSaves, st.nRecords, st.nStored);
  return 0;
}

int run_dump(int argc, char** argv) {
  std::string strDb;
  int64 nTag = -1;
  for (int i = 0; i + 1 < argc; i += 2) {
    const std::string a = argv[i];
    uint64 n = 0;
    if (a == "--db") {
      strDb = argv[i + 1];
    } else if (a == "--tag" && refserver_parse_u64(argv[i + 1], &n) && n <= 0xffffffffull) {
      nTag = static_cast<int64>(n);
    } else {
      print_usage();
      return 2;
    }
  }
  if (strDb.empty() || argc % 2 != 0) {
    print_usage();
    return 2;
  }
  return refreport_dump(strDb.c_str(), nTag, stdout) == 0 ? 0 : 1;
}

// Exit status 0 when nothing is missing and nothing is out of order.
int run_report(int argc, char** argv) {
  std::string strDb;
  SRefExpect expect;
  bool bFirst = false, bLast = false, bGaps = false;
  std::vector<char*> vArgs;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--gaps") == 0) {
      bGaps = true;
    } else {
      vArgs.push_back(argv[i]);
    }
  }
  argc = static_cast<int>(vArgs.size());
  argv = vArgs.data();
  for (int i = 0; i + 1 < argc; i += 2) {
    const std::string a = argv[i];
    const std::string v = argv[i + 1];
    uint64 n = 0;
    if (a == "--db") {
      strDb = v;
    } else if (a == "--tags" && refserver_parse_tag_list(v, &expect.vTags)) {
    } else if (a == "--first" && refserver_parse_u64(v, &n) && n <= 0x7fffffffull) {
      expect.nFirst = static_cast<int64>(n);
      bFirst = true;
    } else if (a == "--last" && refserver_parse_u64(v, &n) && n <= 0x7fffffffull) {
      expect.nLast = static_cast<int64>(n);
      bLast = true;
    } else {
      print_usage();
      return 2;
    }
  }
  if (strDb.empty() || argc % 2 != 0 || bFirst != bLast) {
    print_usage();
    return 2;
  }
  expect.bRange = bFirst;
  std::vector<STagReport> vTags;
  STagReport total;
  if (refreport_compute(strDb.c_str(), expect, &vTags, &total) != 0) return 2;
  refreport_print(vTags, total, bGaps, stdout);
  std::fprintf(stderr, "lost %llu, out of order %llu, duplicates %llu\n",
               static_cast<unsigned long long>(total.nMissing),
               static_cast<unsigned long long>(total.nOutOfOrder),
               static_cast<unsigned long long>(total.nDuplicates));
  return total.nMissing == 0 && total.nOutOfOrder == 0 ? 0 : 1;
}

// Sends one control command to a running server and prints its answer.
int run_ctl(int argc, char** argv) {
  uint64 nPort = 0;
  if (argc < 3 || std::strcmp(argv[0], "--control-port") != 0 ||
      !refserver_parse_u64(argv[1], &nPort) || nPort == 0 || nPort > 65535) {
    print_usage();
    return 2;
  }
  std::string strCmd;
  for (int i = 2; i < argc; ++i) strCmd += (i > 2 ? " " : "") + std::string(argv[i]);
  strCmd += "\n";
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16>(nPort));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      send(fd, strCmd.data(), strCmd.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(strCmd.size())) {
    std::fprintf(stderr, "cannot reach control port %llu: %s\n",
                 static_cast<unsigned long long>(nPort), std::strerror(errno));
    if (fd >= 0) close(fd);
    return 1;
  }
  std::string strReply;
  char c;
  while (recv(fd, &c, 1, 0) == 1 && c != '\n') strReply += c;
  close(fd);
  std::printf("%s\n", strReply.c_str());
  return strReply.rfind("ok", 0) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  spdlog::set_default_logger(spdlog::stderr_color_mt("zdrefserver"));
  spdlog::set_pattern("%Y-%m-%d %H:%M:%S.%e %^%l%$ zdrefserver: %v");
  if (argc < 2) {
    print_usage();
    return 2;
  }
  const std::string strSub = argv[1];
  if (strSub == "dump") return run_dump(argc - 2, argv + 2);
  if (strSub == "report") return run_report(argc - 2, argv + 2);
  if (strSub == "ctl") return run_ctl(argc - 2, argv + 2);
  if (strSub == "serve") return run_serve(argc - 2, argv + 2);
  if (strSub == "-h" || strSub == "--help") {
    print_usage();
    return 0;
  }
  return run_serve(argc - 1, argv + 1);
}
