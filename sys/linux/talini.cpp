// Reading ini files and the environment. No state is kept between requests:
// every lookup opens the file and reads it from the top.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "log.h"
#include "talplat.h"

#define MODULE 0x00000010

// Reads the next line into a buffer of MAXLINELEN. A longer line is cut
// there and its rest skipped, so text deep in a long value never counts as a
// section or a key of its own.
static bool NextLine(FILE* f, char* line) {
  if (!fgets(line, MAXLINELEN, f)) return false;
  size_t len = strlen(line);
  if (len > 0 && line[len - 1] != '\n') {
    int c;
    while ((c = fgetc(f)) != EOF && c != '\n') {
    }
  }
  return true;
}

static const char* OrNull(const char* s) { return s ? s : "NULL"; }

// Writes name and a NUL at out + count when there is room for it and a
// closing NUL; the count goes on whether or not it was written.
static UI4 AddName(PCH1 out, UI4 size, UI4 count, const char* name, UI4 len) {
  if (out && count + len + 2 < size) {
    memcpy(out + count, name, len);
    out[count + len] = 0;
  }
  return count + len + 1;
}

static void CloseList(PCH1 out, UI4 size, UI4 count) {
  if (out && count < size) out[count] = 0;
}

static UI4 ListSections(FILE* f, PCH1 out, UI4 size) {
  char line[MAXLINELEN];
  UI4 count = 0;
  while (NextLine(f, line)) {
    char* end = strchr(line, ']');
    if (line[0] != '[' || !end) continue;
    count = AddName(out, size, count, line + 1, (UI4)(end - line - 1));
  }
  CloseList(out, size, count);
  return count;
}

// The key token of a key line, or null for a comment or a line without '='.
static char* KeyToken(char* line, char** save) {
  if (!strchr(line, '=')) return nullptr;
  char* tok = strtok_r(line, " =\t", save);
  if (!tok || tok[0] == ';') return nullptr;
  return tok;
}

UI4 GetKeys(FILE* file, PCH1 out, UI4 size) {
  char line[MAXLINELEN];
  UI4 count = 0;
  while (NextLine(file, line) && line[0] != '[') {
    char* save = nullptr;
    char* tok = KeyToken(line, &save);
    if (tok) count = AddName(out, size, count, tok, (UI4)strlen(tok));
  }
  if (count > 0) CloseList(out, size, count);
  return count;
}

static bool FindSection(FILE* f, const char* section) {
  char line[MAXLINELEN];
  size_t len = strlen(section);
  while (NextLine(f, line)) {
    if (line[0] == '[' && strncasecmp(line + 1, section, len) == 0 && line[1 + len] == ']')
      return true;
  }
  return false;
}

// Finds the key in the current section. The match is over the length of the
// asked name only, so a longer key that begins with it matches too. The value
// lands in line; null when the key is absent or its value empty.
static char* FindKey(FILE* f, const char* key, char* line) {
  size_t len = strlen(key);
  while (NextLine(f, line) && line[0] != '[') {
    char* eq = strchr(line, '=');
    if (!eq) continue;
    char probe[MAXLINELEN];
    memcpy(probe, line, MAXLINELEN);
    char* save = nullptr;
    char* tok = KeyToken(probe, &save);
    if (!tok || strncasecmp(tok, key, len) != 0) continue;
    char* save2 = nullptr;
    return strtok_r(eq + 1, "\r\n", &save2);
  }
  LOG(2, ("Can't find key %s", key));
  return nullptr;
}

UI4 PLATIni(PCH1 section, PCH1 key, PCH1 def, PCH1 out, UI4 size, PCH1 file) {
  LOG(1, ("PLATIni %s %s %s %lu %s", OrNull(section), OrNull(key), OrNull(def), (UL)size,
          OrNull(file)));
  FILE* f = file ? fopen(file, "rt") : nullptr;
  if (!f) LOG(2, ("Can't open file %s", OrNull(file)));
  if (!section) {
    if (!f) return 0;
    UI4 n = ListSections(f, out, size);
    fclose(f);
    return n;
  }
  char line[MAXLINELEN];
  const char* value = nullptr;
  if (f) {
    if (!FindSection(f, section)) {
      LOG(2, ("Can't find section %s", section));
    } else if (!key) {
      UI4 n = GetKeys(f, out, size);
      fclose(f);
      return n;
    } else {
      value = FindKey(f, key, line);
    }
    fclose(f);
  }
  if (!value) value = def;
  if (!value) return 0;
  UI4 n = (UI4)strlen(value);
  if (!out) {
    LOG(1, ("PLATIni returns %ld %s", (long)n, value));
    return n;
  }
  if (size == 0) return 0;
  // A value cut to size isn't terminated.
  if (size <= n) n = size - 1;
  memcpy(out, value, n + 1);
  LOG(1, ("PLATIni returns %ld %s", (long)n, value));
  return n;
}

UI4 PLATEnvironment(PCH1 name, PCH1 def, PCH1 out, UI4 size) {
  LOG(1, ("PLATEnvironment %s %s %lu", OrNull(name), OrNull(def), (UL)size));
  const char* value = name ? getenv(name) : nullptr;
  if (!value) value = def;
  if (!value || size == 0) return 0;
  UI4 n = (UI4)strlen(value);
  if (size <= n) n = size - 1;
  memcpy(out, value, n);
  out[n] = 0;
  LOG(2, ("PLATEnvironment return %ld %s", (long)n, out));
  return n;
}

char* PrependConfigDir(char* name) {
  if (strchr(name, '/')) return strdup(name);
  const char* home = getenv("HOME");
  if (!home) return nullptr;
  static const char dir[] = "/.orvane/";
  size_t len = strlen(home) + sizeof(dir) + strlen(name);
  char* path = (char*)malloc(len);
  if (path) snprintf(path, len, "%s%s%s", home, dir, name);
  return path;
}
