// The interpreter's half of the debug link. The library calls CommNotify on
// its work thread; the bytes of a message are read in place and the message
// freed at once, as the interpreter does, so the connection goes on.
#include "host/link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace host {

namespace {
// The library calls back on its work thread, also while the host ends the
// link: the callbacks run under this lock, and the host's object goes only
// once none is running.
std::mutex currentLock;
LinkHost* current = nullptr;
}  // namespace

int FreeLoopbackPort() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t n = sizeof a;
  bind(s, (sockaddr*)&a, sizeof a);
  getsockname(s, (sockaddr*)&a, &n);
  close(s);
  return ntohs(a.sin_port);
}

const char* LinkStateName(int32_t state) {
  static const char* const kNames[] = {"Idle", "Negotiate", "Listening", "Connected", "Error", "HttpSrv"};
  return state >= 0 && state < 6 ? kNames[state] : "?";
}

LinkHost* LinkHost::Open(Library& lib, std::map<std::string, std::string> settings, MessageFn onMessage,
                         EndFn onEnd) {
  LinkHost* h = new LinkHost();
  h->settings_ = std::move(settings);
  h->onMessage_ = std::move(onMessage);
  h->onEnd_ = std::move(onEnd);
  {
    std::lock_guard<std::mutex> g(currentLock);
    current = h;
  }
  LinkCallbacks callbacks = {&LinkHost::Notify, &LinkHost::Config};
  h->table_ = (LinkTable*)lib.raw().Zuno2Init(&callbacks);
  if (!h->table_) {
    delete h;
    return nullptr;
  }
  return h;
}

LinkHost::~LinkHost() {
  std::lock_guard<std::mutex> g(currentLock);
  if (current == this) current = nullptr;
}

int32_t LinkHost::Send(const std::string& text) {
  return table_->Send(const_cast<char*>(text.data()), (uint32_t)text.size());
}

std::string LinkHost::Errortext(int32_t code) {
  char text[256];
  int32_t n = table_->Errortext(code, text, sizeof(text));
  return n < 0 ? std::string() : std::string(text);
}

int32_t LinkHost::State() const { return __atomic_load_n(&table_->state, __ATOMIC_ACQUIRE); }

int32_t LinkHost::Notify(uint32_t event, void* item) {
  std::lock_guard<std::mutex> g(currentLock);
  LinkHost* h = current;
  if (!h) return 0;
  if (event == 3) {
    char* data = nullptr;
    uint32_t length = 0;
    h->table_->GetBuffer(item, &data, &length);
    std::string text(data ? data : "", data ? length : 0);
    h->table_->Free(item);
    if (h->onMessage_) h->onMessage_(text);
  } else if (event == 4) {
    h->table_->Free(item);
    if (h->onEnd_) h->onEnd_();
  }
  return 0;
}

int32_t LinkHost::Config(char* key, char* value, size_t size) {
  std::lock_guard<std::mutex> g(currentLock);
  LinkHost* h = current;
  if (!size) return 0;
  value[0] = 0;
  if (!h) return 0;
  auto it = h->settings_.find(key);
  if (it == h->settings_.end()) return 0;
  size_t n = it->second.size() < size - 1 ? it->second.size() : size - 1;
  memcpy(value, it->second.data(), n);
  value[n] = 0;
  return (int32_t)n;
}

}  // namespace host
