// Where the service's configuration files live.
#ifndef COMMON_COMMONFUNC_CONFIG_MANAGER_H_
#define COMMON_COMMONFUNC_CONFIG_MANAGER_H_

#include "zd_types.h"

// Writes "../config/<szCfgFileName>" into szFileAllPath: the directory
// `config` beside the process's working directory. No environment variable
// and no executable location is consulted. Returns 0, or 110241 when the
// path and its terminator do not fit nLenPath bytes (a line is printed).
int32 config_build_file_all_path_by_relative_path(char* szFileAllPath, int32 nLenPath,
                                                   const char* szCfgFileName);

#endif  // COMMON_COMMONFUNC_CONFIG_MANAGER_H_
