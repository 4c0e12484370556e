// Repair of the harmless findings of a cache file: leaked blocks go back to
// the idle list and the second copies of duplicate entries are removed.
// Damage is never repaired: it is reported and the file is left alone.
//
// Procedure, so that FILE is a complete cache file at every moment:
//   1. refuse while the file is in use: another process has it open (seen in
//      /proc/<pid>/fd), another zdcache holds an flock(LOCK_EX) on it, or,
//      with a process name, the service's single-instance guard
//      /dev/shm/<name>_sema.lock is taken (the guard is then held until the
//      end, so that the service cannot start in the middle);
//   2. refuse when FILE.bak exists (an earlier backup is never overwritten);
//   3. copy FILE to FILE.repair (mode 0600), repair the copy, fsync it and
//      run the checker on it: it must come out without any finding;
//   4. hard-link FILE to FILE.bak, then rename FILE.repair over FILE.
// A failure before step 4 removes FILE.repair and leaves FILE untouched.
#ifndef TOOLS_ZDCACHE_CACHE_REPAIR_H_
#define TOOLS_ZDCACHE_CACHE_REPAIR_H_

#include <stdio.h>

#include "zd_types.h"

// Returns a ZdcacheExit status. szName may be null.
int cache_repair(const char* szPath, int32 nSizeMb, const char* szName, FILE* pOut, FILE* pErr);

#endif  // TOOLS_ZDCACHE_CACHE_REPAIR_H_
