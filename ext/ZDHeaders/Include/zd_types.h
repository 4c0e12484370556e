/* Fixed-width names shared by every module of the system, C and C++. */
#ifndef ZDHEADERS_INCLUDE_ZD_TYPES_H_
#define ZDHEADERS_INCLUDE_ZD_TYPES_H_

#include <stdint.h>

typedef int8_t int8;
typedef int16_t int16;
typedef int32_t int32;
typedef int64_t int64;
typedef uint8_t uint8;
typedef uint16_t uint16;
typedef uint32_t uint32;
typedef uint64_t uint64;
typedef float float32;
typedef double float64;

#endif /* ZDHEADERS_INCLUDE_ZD_TYPES_H_ */
