// The debug link's small web server: the pages of the development
// environment from one directory. It knows GET only and answers each
// received part that holds those letters with a file or the 404 page. The
// content type comes from the file's extension, and the configuration
// file's section "ContentTypes" may replace or add any.
//
// Nothing outside the page directory is ever opened: the path is resolved
// with its links and must still lie inside the resolved directory, and a
// path longer than its room, a directory or a missing file gets the 404.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "httpconnection.h"
#include "ifzuno2.h"
#include "log.h"
#include "talplat.h"

#define MODULE 0x00001000

#define MAXCONTENTTYPES 9
#define ZUNO_PATH_ROOM 512
#define ZUNO_HEADER_ROOM 512
#define ZUNO_TYPE_ROOM 79

static const char httpResponse[] = "HTTP/1.1 %s\r\nDate: %s\r\nServer: Orvane\r\nContent-Type: %s\r\n\r\n";
static const char httpOK[] = "200 OK";
static const char http404[] = "404 Not Found";
static const char httpCL[] = "Content-Length: %d\r\n\r\n";
static const char page404[] = "Ooops 404";
static const char defaultPage[] = "index.html";

static const struct {
  const char* ext;
  const char* type;
} applicationcontent[MAXCONTENTTYPES] = {
    {"html", "text/html"}, {"zuno", "text/html"},      {"js", "text/javascript"},
    {"png", "image/png"},  {"jpg", "image/jpeg"},      {"css", "text/css"},
    {"ico", "image/x-icon"}, {"ttf", "font/truetype"}, {"woff", "application/font-woff"}};

// The content type of a target by its extension, the file's section first.
static void ContentType(const char* target, const char* configFile, char* out) {
  const char* dot = strrchr(target, '.');
  const char* def = "text/html";
  snprintf(out, ZUNO_TYPE_ROOM, "%s", def);
  if (!dot) return;
  const char* ext = dot + 1;
  for (const auto& row : applicationcontent)
    if (strcasecmp(ext, row.ext) == 0) def = row.type;
  PLATIni((PCH1) "ContentTypes", (PCH1)ext, (PCH1)def, out, ZUNO_TYPE_ROOM, (PCH1)configFile);
  out[ZUNO_TYPE_ROOM - 1] = 0;
}

// Opens dir + target when the file it names, links resolved, is a regular
// file inside dir; -1 otherwise.
static int OpenInside(const char* dir, const char* target) {
  char path[ZUNO_PATH_ROOM];
  size_t n = strlen(dir);
  bool slash = n && (dir[n - 1] == '/' || dir[n - 1] == '\\');
  int len = snprintf(path, sizeof(path), "%s%s%s", dir, slash ? "" : "/", target);
  if (len < 0 || (size_t)len >= sizeof(path)) return -1;
  char realDir[PATH_MAX], realFile[PATH_MAX];
  if (!realpath(dir, realDir) || !realpath(path, realFile)) return -1;
  size_t d = strlen(realDir);
  bool inside = strncmp(realFile, realDir, d) == 0 && (realFile[d] == '/' || (d == 1 && realDir[0] == '/'));
  if (!inside) return -1;
  int fd = open(realFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat st;
  if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
    close(fd);
    fd = -1;
  }
  return fd;
}

PBUFFER HandleHttpRequest(PHIERAKI pItem, PBUFFER pBuf) {
  PZuno2Config cfg = fns2.pZuno2Config;
  PRPCOBJS conn = pItem ? (PRPCOBJS)pItem->pObj : nullptr;
  if (!cfg || !conn || !pBuf) return nullptr;
  char type[ZUNO_TYPE_ROOM] = "";
  int fd = -1;
  SI4 at = pBuf->FindAsc((PCH10) "GET", true, true);
  if (at >= 0) {
    // The target: behind the blanks, up to the next blank or the end.
    PCH1 p = pBuf->Start() + at, end = pBuf->Start() + pBuf->SizeProcessed();
    while (p < end && *p == ' ') p++;
    PCH1 stop = p;
    while (stop < end && *stop != ' ') stop++;
    std::string whole(p, (size_t)(stop - p));
    const char* t = whole.c_str();
    if (strncasecmp(t, "http://", 7) == 0) {
      const char* s = whole.size() > 8 ? strchr(t + 8, '/') : nullptr;
      t = s ? s : t + whole.size();
    }
    LOG(1, ("Requesting page %.200s", t));
    if (strcmp(t, "/") == 0) t = defaultPage;
    ContentType(t, cfg->ConfigFile, type);
    if (cfg->pHttpDir) fd = OpenInside(cfg->pHttpDir, t);
  }
  char date[64], header[ZUNO_HEADER_ROOM];
  HttpDate(date, sizeof(date));
  int n = snprintf(header, sizeof(header), httpResponse, fd >= 0 ? httpOK : http404, date, type);
  if (n < 0 || (size_t)n >= sizeof(header)) n = (int)strlen(header);
  if (fd < 0) {
    // The page for a missing file: its length in place of the last line.
    n -= 2;
    n += snprintf(header + n, sizeof(header) - (size_t)n, httpCL, (int)(sizeof(page404) - 1));
    n += snprintf(header + n, sizeof(header) - (size_t)n, "%s", page404);
  }
  PBUFFER out = nullptr;
  conn->ComposeBuffer((PUI1)header, (UI4)n, fd, &out);
  return out;
}
