// pelkohost serve: a static web server written as an APL program would
// write it, on the exports alone. One HTTP listener, one wait loop: each
// request's header comes decoded, and the answer is a text with the file's
// name behind it, so the library streams the file without reading it whole.
// WebSocket upgrades on the same port are made by the library, and each
// message is sent back as it came.
#include "host/serve.h"

#include <dirent.h>
#include <limits.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

namespace serve {

namespace {

using host::Value;

std::atomic<bool> stopping{false};

void OnSignal(int) { stopping = true; }

Value Opt(const char* name, Value v) { return Value::Nested({Value::Text(name), std::move(v)}); }

const char* const kRoot = "SERVE";
// The largest header, and the largest WebSocket message taken in one frame.
const int kBufferSize = 4 << 20;
const int kWaitMs = 250;

const std::map<std::string, const char*> kTypes = {
    {"html", "text/html; charset=utf-8"}, {"htm", "text/html; charset=utf-8"},
    {"css", "text/css"},                  {"js", "text/javascript"},
    {"mjs", "text/javascript"},           {"json", "application/json"},
    {"txt", "text/plain; charset=utf-8"}, {"md", "text/plain; charset=utf-8"},
    {"png", "image/png"},                 {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},               {"gif", "image/gif"},
    {"svg", "image/svg+xml"},             {"ico", "image/x-icon"},
    {"wasm", "application/wasm"},         {"pdf", "application/pdf"},
    {"xml", "application/xml"},           {"webp", "image/webp"},
};

const char* ContentType(const std::string& path) {
  size_t dot = path.rfind('.');
  if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return "application/octet-stream";
  std::string ext = path.substr(dot + 1);
  for (char& c : ext) c = (char)tolower((unsigned char)c);
  auto it = kTypes.find(ext);
  return it == kTypes.end() ? "application/octet-stream" : it->second;
}

int Hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The path of a request target, percent-decoded, without its query; false
// for what no file can be named by.
bool DecodeTarget(const std::string& target, std::string* path) {
  std::string t = target.substr(0, target.find_first_of("?#"));
  path->clear();
  for (size_t i = 0; i < t.size(); i++) {
    if (t[i] != '%') {
      path->push_back(t[i]);
      continue;
    }
    if (i + 2 >= t.size() || Hex(t[i + 1]) < 0 || Hex(t[i + 2]) < 0) return false;
    path->push_back((char)(Hex(t[i + 1]) * 16 + Hex(t[i + 2])));
    i += 2;
  }
  return !path->empty() && (*path)[0] == '/' && path->find('\0') == std::string::npos;
}

std::string HtmlEscape(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '&': out += "&amp;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

// A path as a link target: every byte but letters, digits, "/" and
// "-._~" percent-encoded, so names with "#", "?" or spaces still link.
std::string UrlEncode(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : path) {
    if (isalnum(c) || (c && strchr("/-._~", c))) {
      out += (char)c;
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string Now() {
  char text[64];
  time_t t = time(nullptr);
  struct tm tm;
  gmtime_r(&t, &tm);
  strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &tm);
  return text;
}

struct Answer {
  int status = 200;
  std::string reason = "OK";
  std::string type;
  std::string body;      // for generated pages
  std::string file;      // or a file to stream
  std::string extra;     // header lines of its own, each ending in CRLF
  long long length = 0;  // of body or file
};

class Server {
 public:
  Server(host::Library& lib, const Options& o) : lib_(lib), o_(o) {}

  int Run() {
    char real[PATH_MAX];
    struct stat st;
    if (!realpath(o_.dir.c_str(), real) || stat(real, &st) != 0) {
      fprintf(stderr, "pelkohost serve: no such directory: %s\n", o_.dir.c_str());
      return 1;
    }
    if (!S_ISDIR(st.st_mode)) {
      fprintf(stderr, "pelkohost serve: not a directory: %s\n", o_.dir.c_str());
      return 1;
    }
    root_ = real;
    // Paths inside start with this; "/" ends in its own slash already.
    inside_ = root_ == "/" ? root_ : root_ + "/";
    if (lib_.Init(kRoot, lib_.path()) != 0) {
      fprintf(stderr, "pelkohost serve: the library did not start a root\n");
      return 1;
    }
    std::vector<Value> opts = {Opt("Name", Value::Text("WEB")), Opt("Address", Value::Text(o_.address)),
                               Opt("Port", Value::Text(o_.port)), Opt("Mode", Value::Text("http")),
                               Opt("BufferSize", Value::Int(kBufferSize))};
    if (!o_.cert.empty()) {
      opts.push_back(Opt("PublicCertFile", Value::Nested({Value::Text("DER"), Value::Text(o_.cert), Value::Int(0)})));
      opts.push_back(Opt("PrivateKeyFile", Value::Nested({Value::Text("DER"), Value::Text(o_.key), Value::Int(0)})));
    }
    host::CallResult r = lib_.Call(kRoot, "ASrv", Value::Nested(opts));
    if (!r.result.isNested()) {
      int code = (int)r.result.intAt(0);
      fprintf(stderr, "pelkohost serve: cannot listen on %s:%s: %s (%d)\n", o_.address.c_str(), o_.port.c_str(),
              host::ErrorName(code), code);
      lib_.Call(kRoot, "AClose", Value::Text("."));
      return 1;
    }
    lib_.Call(kRoot, "ASetProp", Value::Nested({Value::Text("WEB"), Value::Text("DecodeBuffers"), Value::Int(1)}));
    lib_.Call(kRoot, "ASetProp", Value::Nested({Value::Text("WEB"), Value::Text("WSFeatures"), Value::Int(1)}));
    r = lib_.Call(kRoot, "AGetProp", Value::Nested({Value::Text("WEB"), Value::Text("LocalAddr")}));
    int port = r.result.isNested() ? (int)r.result[1][3].intAt(0) : 0;
    printf("Serving %s on %s://%s:%d/ (Ctrl-C ends)\n", root_.c_str(), o_.cert.empty() ? "http" : "https",
           o_.address.c_str(), port);
    fflush(stdout);
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    while (!stopping) Step();
    lib_.Call(kRoot, "AClose", Value::Text("."));
    printf("Stopped.\n");
    return 0;
  }

 private:
  void Step() {
    host::CallResult r = lib_.Call(kRoot, "AWaitZ", Value::Int(0), Value::Nested({Value::Text("WEB"), Value::Int(kWaitMs)}));
    if (!r.result.isNested() || r.result.count() < 3) return;
    std::string name = r.result[1].text(), event = r.result[2].text();
    const Value& data = r.left ? *r.left : Value();
    if (event == "Connect") {
      host::CallResult a = lib_.Call(kRoot, "AGetProp", Value::Nested({Value::Text(name), Value::Text("PeerAddr")}));
      peers_[name] = a.result.isNested() && a.result[1].count() > 1 ? a.result[1][1].text() : "?";
    } else if (event == "HTTPHeader" && data.isNested() && data.count() == 4) {
      Request(name, data);
    } else if (event == "WSReceive" && data.isNested() && data.count() == 3) {
      Echo(name, data);
    } else if (event == "WSUpgrade") {
      printf("%s - upgraded to WebSocket\n", Peer(name).c_str());
    } else if (event == "Error" || event == "Closed" || event.rfind("Blk", 0) == 0) {
      peers_.erase(name);
      fragments_.erase(name);
      textMessage_.erase(name);
    }
    fflush(stdout);
  }

  // A message goes back as it came, text as text and binary as binary.
  // Its fragments are joined first: the library sends every fragment of a
  // message with the first one's opcode, which standard peers refuse.
  void Echo(const std::string& name, const Value& frame) {
    std::string& held = fragments_[name];
    const Value& data = frame[0];
    bool text = data.isText() || (data.count() == 0 && frame[2].intAt(0) == 1);
    if (text) {
      held += data.text();
    } else if (data.type() == host::Type::Int8) {
      held.append(data.bytes().begin(), data.bytes().end());  // the bytes as they stand
    } else {
      for (int64_t b : data.ints()) held.push_back((char)b);
    }
    if (frame[1].intAt(0) == 0) {
      if (frame[2].intAt(0) != 0) textMessage_[name] = text;
      return;
    }
    if (frame[2].intAt(0) == 0) text = textMessage_[name];
    Value whole = text ? Value::Text(held) : Value::Int8s(std::vector<int8_t>(held.begin(), held.end()));
    held.clear();
    lib_.Call(kRoot, "ASendZ", Value::Nested({whole, Value::Int(1)}), Value::Nested({Value::Text(name), Value::Int(0)}));
  }

  std::string Peer(const std::string& name) {
    auto it = peers_.find(name);
    return it == peers_.end() ? "?" : it->second;
  }

  // The file a path names, inside the served directory, or why not.
  bool Resolve(const std::string& path, std::string* file, struct stat* st) {
    std::string joined = root_ + path;
    char real[PATH_MAX];
    if (!realpath(joined.c_str(), real)) return false;
    std::string r = real;
    // Nothing outside: no "..", and no link that points elsewhere.
    if (r != root_ && r.compare(0, inside_.size(), inside_) != 0) return false;
    if (stat(real, st) != 0) return false;
    if (S_ISDIR(st->st_mode)) {
      std::string index = r + "/index.html";
      struct stat ist;
      if (stat(index.c_str(), &ist) == 0 && S_ISREG(ist.st_mode)) {
        *st = ist;
        r = index;
      }
    }
    *file = r;
    return S_ISREG(st->st_mode) || S_ISDIR(st->st_mode);
  }

  Answer Listing(const std::string& dir, const std::string& path) {
    Answer a;
    a.type = "text/html; charset=utf-8";
    a.body = "<!DOCTYPE html>\n<title>" + HtmlEscape(path) + "</title>\n<h1>" + HtmlEscape(path) + "</h1>\n<ul>\n";
    std::string base = path.back() == '/' ? path : path + "/";
    if (DIR* d = opendir(dir.c_str())) {
      for (dirent* e = readdir(d); e; e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        a.body += "<li><a href=\"" + HtmlEscape(UrlEncode(base + e->d_name)) + "\">" + HtmlEscape(e->d_name) + "</a>\n";
      }
      closedir(d);
    }
    a.body += "</ul>\n";
    a.length = (long long)a.body.size();
    return a;
  }

  static Answer Status(int status, const char* reason) {
    Answer a;
    a.status = status;
    a.reason = reason;
    a.type = "text/plain; charset=utf-8";
    a.body = std::to_string(status) + " " + reason + "\n";
    a.length = (long long)a.body.size();
    return a;
  }

  static std::string Header(const Value& rows, const std::string& name) {
    if (rows.rank() != 2 || !rows.isNested()) return "";
    for (uint64_t i = 0; i < rows.shape()[0]; i++) {
      std::string n = rows[2 * i].text();
      if (strcasecmp(n.c_str(), name.c_str()) == 0) return rows[2 * i + 1].text();
    }
    return "";
  }

  void Request(const std::string& name, const Value& h) {
    std::string method = h[0].text(), target = h[1].text(), version = h[2].text();
    std::string connection = Header(h[3], "Connection");
    bool close = version == "HTTP/1.0" ? strcasecmp(connection.c_str(), "keep-alive") != 0
                                       : strcasecmp(connection.c_str(), "close") == 0;
    Answer a;
    std::string path;
    struct stat st = {};
    std::string file;
    if (method.empty() || target.empty() || version.compare(0, 7, "HTTP/1.") != 0) {
      a = Status(400, "Bad Request");
      close = true;  // what follows can't be trusted to be a request
    } else if (method != "GET" && method != "HEAD") {
      a = Status(405, "Method Not Allowed");
      a.extra = "Allow: GET, HEAD\r\n";
      close = true;  // a body may follow that nobody reads
    } else if (!DecodeTarget(target, &path) || !Resolve(path, &file, &st)) {
      a = Status(404, "Not Found");
    } else if (S_ISDIR(st.st_mode)) {
      a = Listing(file, path);
    } else {
      a.type = ContentType(file);
      a.file = file;
      a.length = (long long)st.st_size;
    }
    // An HTTP/1.0 client keeps its connection only when told it is kept.
    if (!close && version == "HTTP/1.0") a.extra += "Connection: keep-alive\r\n";
    int code = Send(name, method == "HEAD", a, close);
    if (code && !a.file.empty()) {
      // The library could not open or size the file: the client still
      // gets an answer, on a connection that ends with it.
      Answer failed = Status(500, "Internal Server Error");
      close = true;
      code = Send(name, method == "HEAD", failed, close);
      a = failed;
    }
    std::string note = code ? std::string(" (not sent: ") + host::ErrorName(code) + ")" : "";
    printf("%s - \"%s %s %s\" %d %lld%s\n", Peer(name).c_str(), method.c_str(), target.c_str(), version.c_str(),
           a.status, method == "HEAD" ? 0LL : a.length, note.c_str());
  }

  // Sends an answer; 0, or the library's error code.
  int Send(const std::string& name, bool head, const Answer& a, bool close) {
    std::string text = "HTTP/1.1 " + std::to_string(a.status) + " " + a.reason + "\r\nServer: pelkohost\r\nDate: " +
                       Now() + "\r\nContent-Type: " + a.type + "\r\n" + a.extra +
                       (close ? "Connection: close\r\n" : "");
    Value answer;
    if (head) {
      answer = Value::Text(text + "Content-Length: " + std::to_string(a.length) + "\r\n\r\n");
    } else if (!a.file.empty()) {
      // The library puts the file's length in before the blank line and
      // streams the file behind it.
      answer = Value::Nested({Value::Text(text + "\r\n"), Value::Text(a.file)});
    } else {
      answer = Value::Text(text + "Content-Length: " + std::to_string(a.length) + "\r\n\r\n" + a.body);
    }
    host::CallResult r = lib_.Call(kRoot, "ASendZ", answer, Value::Nested({Value::Text(name), Value::Int(close ? 1 : 0)}));
    return r.result.isNested() ? 0 : (int)r.result.intAt(0);
  }

  host::Library& lib_;
  Options o_;
  std::string root_, inside_;
  std::map<std::string, std::string> peers_;
  std::map<std::string, std::string> fragments_;
  std::map<std::string, bool> textMessage_;
};

}  // namespace

int Usage() {
  fprintf(stderr,
          "usage: pelkohost serve [DIR] [--address A] [--port N] [--cert FILE --key FILE]\n"
          "  Serves the files below DIR (default .) over HTTP, or HTTPS with a\n"
          "  certificate and its key, on A (default 127.0.0.1) and port N (default\n"
          "  8000; 0 picks a free one). WebSocket messages sent to any path come\n"
          "  back as they were sent. Ctrl-C ends it.\n");
  return 2;
}

bool ParseArgs(int argc, char** argv, Options* o) {
  bool dirSeen = false;
  for (int i = 0; i < argc; i++) {
    std::string a = argv[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    if (a == "--address" || a == "--port" || a == "--cert" || a == "--key") {
      std::string* out = a == "--address" ? &o->address : a == "--port" ? &o->port : a == "--cert" ? &o->cert : &o->key;
      if (!value(out)) return false;
    } else if (a.rfind("--", 0) == 0 || dirSeen) {
      return false;
    } else {
      o->dir = a;
      dirSeen = true;
    }
  }
  return o->cert.empty() == o->key.empty();
}

int Run(host::Library& lib, const Options& o) { return Server(lib, o).Run(); }

}  // namespace serve
