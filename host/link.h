// The debug link from the interpreter's side: the two callbacks it offers
// the library (CommNotify for data and the session's end, CommConfig for
// its settings) and the table of functions Zuno2Init gives back. One link
// exists in a process, so one LinkHost at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "host/library.h"

namespace host {

// The table Zuno2Init returns, laid out as the library lays it out.
struct LinkTable {
  void* config;
  int32_t state;
  int32_t enabled;
  void* root;
  int32_t (*Enable)(int32_t enable);
  int32_t (*GetBuffer)(void* item, char** data, uint32_t* length);
  int32_t (*Free)(void* item);
  int32_t (*Send)(char* data, uint32_t length);
  int32_t (*Errortext)(int32_t code, char* text, uint32_t size);
};

// The record handed to Zuno2Init: the library reads these two only.
struct LinkCallbacks {
  int32_t (*CommNotify)(uint32_t event, void* item);
  int32_t (*CommConfig)(char* key, char* value, size_t size);
};

// A loopback port nobody listens on at this moment, for a link's setting.
int FreeLoopbackPort();

// The session's states, as the table's state word holds them.
const char* LinkStateName(int32_t state);

class LinkHost {
 public:
  // Called on the library's work thread: a message's bytes, and the end of
  // the session.
  using MessageFn = std::function<void(const std::string&)>;
  using EndFn = std::function<void()>;

  // settings: the host's settings by key ("ZUNO\\INIT", "ORVANEUSERDIR",
  // ...); a key not there reads as empty. Null when Zuno2Init fails.
  static LinkHost* Open(Library& lib, std::map<std::string, std::string> settings, MessageFn onMessage,
                        EndFn onEnd);
  ~LinkHost();

  int32_t Enable(int32_t on) { return table_->Enable(on); }
  int32_t Send(const std::string& text);
  std::string Errortext(int32_t code);
  int32_t State() const;
  const LinkTable& table() const { return *table_; }

 private:
  LinkHost() = default;
  static int32_t Notify(uint32_t event, void* item);
  static int32_t Config(char* key, char* value, size_t size);

  LinkTable* table_ = nullptr;
  std::map<std::string, std::string> settings_;
  MessageFn onMessage_;
  EndFn onEnd_;
};

}  // namespace host
