// Scalar names used throughout the library. Every other header builds on
// these, so this one includes nothing of its own beyond the C basics.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>

typedef uint8_t UI1;
typedef uint16_t UI2;
typedef uint32_t UI4;
typedef uint64_t UI8;
typedef int8_t SI1;
typedef int16_t SI2;
typedef int32_t SI4;
typedef char CH1;
typedef double F8;
typedef bool BOOL;
typedef unsigned long UL;
typedef char* PCH1;
typedef char* PCH10;  // zero-terminated
typedef char* PSZ;
typedef void* PVOID;

typedef UI1* PUI1;
typedef UI2* PUI2;
typedef UI4* PUI4;
typedef UI8* PUI8;
typedef SI1* PSI1;
typedef SI2* PSI2;
typedef SI4* PSI4;
typedef F8* PF8;

typedef int64_t TALoff_t;
typedef struct sockaddr_storage TALSOCKADDR;
typedef int (*TALFPTR)();

#define TAL_REUSE 1

// Symbols the interpreter may call. Everything else stays hidden.
#define PELKO_EXPORT extern "C" __attribute__((visibility("default")))
