// The library's one text log. A line is written only when its module's bit
// is on in the trace word and its level doesn't exceed the global level, and
// only into a log file that already exists.
#pragma once

#include <atomic>

#include <cstdio>

#include "taltypes.h"

struct VARRAY;

#define LOGMASK 0xfffffff0u
#define BaseLogLevel 1

extern std::atomic<UI4> uiGlobalLevel;
extern std::atomic<UI4> ulGlobalTrace;
extern PCH10 pLogFile;

void LOGSet(UI4 word);
UI4 LOGGet();
UI4 LOGOption(const char* text);
SI4 InitLog(const char* name);
FILE* LOGOpen();
void LOGClose(FILE* f);
void LOG2File(const char* format, ...) __attribute__((format(printf, 1, 2)));
void LOGStr(const char* text);
void LOGStrL(const char* text, long value);
void LOGHex(const char* data, UI4 length);
void LOGPrintAA(VARRAY* aa);
void DescribeAA(FILE* f, VARRAY* aa, int indent);
void PrintAA(FILE* f, VARRAY* aa, int indent);

// The whole cost of a log site while logging is off: two loads, an OR, a
// mask and a compare. Any thread may change the words meanwhile; a line
// sees the old setting or the new one.
inline SI4 LOGif(UI4 force, UI4 module, UI4 level) {
  if (((ulGlobalTrace.load(std::memory_order_relaxed) | force) & module) < 16) return 0;
  return (uiGlobalLevel.load(std::memory_order_relaxed) >= level || level <= (force & 15)) ? 1 : 0;
}

// Each source file defines MODULE to its own bit before using these.
#define LOG(lev, arg)                 \
  do {                                \
    if (LOGif(0, MODULE, (lev))) LOG2File arg; \
  } while (0)
#define LOGAA(lev, arg)                     \
  do {                                      \
    if (LOGif(0, MODULE, (lev))) LOGPrintAA(arg); \
  } while (0)
#define DLOG(arg)
#define ERRORLOG(arg)
