// Writing the log. Each message opens the file, appends and closes it, so a
// process that dies leaves a complete log behind. The file is opened "r+":
// the library never creates it; an operator turns logging on by creating it.
#include "log.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "pelkoerr.h"
#include "talplat.h"
#include "vapl.h"

std::atomic<UI4> uiGlobalLevel{0};
std::atomic<UI4> ulGlobalTrace{0};
PCH10 pLogFile = nullptr;

static const char* const pcType[] = {
    "No initialization", "Boolean 1 bit",      "Integer 1 byte",   "Integer 2 bytes",
    "Integer 4 bytes",   "Floating-point",     "Complex",          "APV integer 4 bytes",
    "APV floating-point", "Character 1 byte",  "Character 2 byte", "Character 4 byte",
    "Nested array",      "Heterogenous array", "Boxed array",      "Integer 8 bytes",
    "Invalid type"};
static const UI4 pcTypeRows = sizeof(pcType) / sizeof(pcType[0]);

static const char* TypeName(UI4 type) {
  return pcType[type < pcTypeRows ? type : pcTypeRows - 1];
}

void LOGSet(UI4 word) {
  uiGlobalLevel = word & 15;
  ulGlobalTrace = word & LOGMASK;
}

UI4 LOGGet() { return uiGlobalLevel | ulGlobalTrace; }

UI4 LOGOption(const char* text) {
  UI4 result = 0;
  if (!text) return 0;
  for (const char* p = strchr(text, '/'); p; p = strchr(p + 1, '/')) {
    char c = p[1];
    if (c == 'T' || c == 't') result += (UI4)strtoul(p + 2, nullptr, 0) & 15;
    else if (c == 'M' || c == 'm') result += (UI4)strtoul(p + 2, nullptr, 0) & LOGMASK;
  }
  return result;
}

SI4 InitLog(const char* name) {
  free(pLogFile);
  pLogFile = nullptr;
  if (!name || !*name) return 0;
  pLogFile = strdup(name);
  return pLogFile ? 0 : ERR_MEMORY_ALLOC;
}

FILE* LOGOpen() {
  FILE* f = fopen(pLogFile ? pLogFile : "pelko.log", "r+");
  if (f) fseek(f, 0, SEEK_END);
  return f;
}

void LOGClose(FILE* f) { fclose(f); }

// ctime's text without its newline, in the caller's buffer.
static const char* DateText(char* buf) {
  time_t now = time(nullptr);
  ctime_r(&now, buf);
  size_t n = strlen(buf);
  if (n) buf[n - 1] = 0;
  return buf;
}

void LOG2File(const char* format, ...) {
  FILE* f = LOGOpen();
  if (!f) return;
  char date[32];
  time_t now = time(nullptr);
  ctime_r(&now, date);
  fprintf(f, "%24.24s %25.0f %8u %16p: ", date, Micros(), (unsigned)getpid(),
          (void*)pthread_self());
  va_list ap;
  va_start(ap, format);
  vfprintf(f, format, ap);
  va_end(ap);
  fputc('\n', f);
  fclose(f);
}

void LOGStr(const char* text) {
  FILE* f = LOGOpen();
  if (!f) return;
  char date[32];
  fprintf(f, "%s  %s\n", DateText(date), text ? text : "");
  fclose(f);
}

void LOGStrL(const char* text, long value) {
  FILE* f = LOGOpen();
  if (!f) return;
  char date[32];
  fprintf(f, "%s  %s %ld\n", DateText(date), text ? text : "", value);
  fclose(f);
}

void LOGHex(const char* data, UI4 length) {
  FILE* f = LOGOpen();
  if (!f) return;
  if (!data) data = "";
  char date[32];
  fputs(DateText(date), f);
  for (UI4 i = 0; i < length; i++) {
    if ((i & 31) == 0) fputc('\n', f);
    // Bytes are signed: 0x80 and above print as four digits.
    fprintf(f, "%02hx ", (unsigned short)(short)(signed char)data[i]);
  }
  fputc('\n', f);
  fclose(f);
}

static void BeginLine(FILE* f, int indent) {
  fputc('\n', f);
  for (int i = 0; i < indent; i++) fputs(" |", f);
}

void DescribeAA(FILE* f, VARRAY* aa, int indent) {
  BeginLine(f, indent);
  if (!aa) {
    fputs("Null pointer", f);
    return;
  }
  fprintf(f, ">Array %8lu %-25s %4u %5lu", (unsigned long)aa->length, TypeName(aa->type),
          (unsigned)aa->rank, (unsigned long)aa->refcount);
  if (aa->rank) {
    BeginLine(f, indent);
    for (UI4 i = 0; i < aa->rank; i++) fprintf(f, " %7lu", (unsigned long)aa->shape[i]);
  }
}

// Element i as text, through the same reader the library uses, or the
// failure line when it doesn't fit the dump's buffer.
static void PrintText(FILE* f, PAA aa, UI4 i, int indent, const char* tooLong) {
  char text[2048];
  BeginLine(f, indent);
  if (VAGetCH1(aa, i, text, sizeof(text), VACHAR) != 0) {
    fprintf(f, tooLong, sizeof(text));
    return;
  }
  fputs(text, f);
}

static F8 NumberAt(PAA aa, UI4 i) {
  F8 v = 0;
  VAGetF8(aa, i, &v);
  return v;
}

void PrintAA(FILE* f, VARRAY* aa, int indent) {
  if (!aa) {
    BeginLine(f, indent);
    fputs("NULL Pointer", f);
    return;
  }
  DescribeAA(f, aa, indent);
  UI4 n = VAElems(aa);
  switch (aa->type) {
    case VABit: case VAI1: case VAI2: case VAI4: case VAF8: case VAApvI4: case VAApvF8:
      for (UI4 i = 0; i < n; i++) {
        if (i % 10 == 0) {
          BeginLine(f, indent);
          fprintf(f, "%8ld  ", (long)i);
        }
        fprintf(f, "%g ", NumberAt(aa, i));
      }
      break;
    case VAC1:
      PrintText(f, aa, 0, indent, "String larger than %zd bytes");
      break;
    case VAPntr:
      for (UI4 i = 0; i < n; i++) {
        BeginLine(f, indent + 1);
        fprintf(f, ">Item no. %d", (int)i);
        PrintAA(f, VASlot(aa, i), indent + 2);
      }
      break;
    case VAHet:
      for (UI4 i = 0; i < n; i++) {
        BeginLine(f, indent + 1);
        fprintf(f, ">Item no. %7d ", (int)i);
        SI4 t = VAHetType(aa, i);
        fprintf(f, "Elem type %s", TypeName((UI4)t));
        if (t >= VABit && t <= VAF8) {
          BeginLine(f, indent);
          fprintf(f, "%g", NumberAt(aa, i));
        } else if (t == VAC1) {
          PrintText(f, aa, i, indent, "String larger than %lu bytes");
        } else if (t == VAPntr) {
          PrintAA(f, VAHetChild(aa, i), indent + 2);
        }
      }
      break;
    default:
      BeginLine(f, indent);
      fputs("Unknown apl type\n", f);
      break;
  }
}

void LOGPrintAA(VARRAY* aa) {
  FILE* f = LOGOpen();
  if (!f) return;
  char date[32];
  fprintf(f, "%s APL Array:\n", DateText(date));
  PrintAA(f, aa, 0);
  fputc('\n', f);
  fclose(f);
}
