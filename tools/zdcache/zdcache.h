// zdcache: the operator's inspector of the service's cache file.
//
//   zdcache info    FILE [--size-mb N]
//   zdcache servers FILE [--size-mb N]
//   zdcache check   FILE [--size-mb N] [--repair [--name NAME]]
//   zdcache dump    FILE [--server K] [--format csv|table] [--limit N]
//   zdcache export  FILE OUT [--server K]
//
// Every command but check --repair opens FILE read-only. The command runs in
// process so that tests see its output and exit status without a child.
#ifndef TOOLS_ZDCACHE_ZDCACHE_H_
#define TOOLS_ZDCACHE_ZDCACHE_H_

#include <stdio.h>

// Exit statuses.
enum ZdcacheExit {
  ZDCACHE_EXIT_OK = 0,
  ZDCACHE_EXIT_DAMAGE = 1,    // the file breaks an invariant (or its header is unusable)
  ZDCACHE_EXIT_HARMLESS = 2,  // check: leaked blocks or duplicate entries only
  ZDCACHE_EXIT_USAGE = 3,     // bad command line
  ZDCACHE_EXIT_IO = 4,        // a file could not be opened, read or written
  ZDCACHE_EXIT_BUSY = 5       // repair refused: the file is in use, or a backup is in the way
};

// Runs one command; normal output to pOut, diagnostics to pErr.
int zdcache_main(int argc, char** argv, FILE* pOut, FILE* pErr);

#endif  // TOOLS_ZDCACHE_ZDCACHE_H_
