// Global start and stop of GnuTLS. The semaphore keeps a start and a stop
// from running into each other.
#include "securesocket.h"

#include "log.h"
#include "pelkossl.h"
#include "talplat.h"

#define MODULE 0x00000400

static SslControl* INSTANCE = nullptr;
static PTALSEMA initSemaphore = nullptr;

// GnuTLS text may hold anything, including '%', so it is never used as a
// format. Deeper levels are indented two blanks each.
void SslControl::logFunction(int level, const char* text) {
  if (!LOGif(0, MODULE, level + 3)) return;
  LOG2File("%*s%s", level > 0 ? 2 * level : 0, "", text ? text : "");
}

void SslLoad() {
  if (!PelkosslLoaded()) return;
  if (!initSemaphore) initSemaphore = new TALSEMA(1, 1);
  if (INSTANCE) return;
  SslControl* control = new SslControl();
  LOG(1, ("Create SslControl "));
  initSemaphore->wait();
  LOG(1, ("SslInitThreads - thread: "));
  gnutls_global_set_log_level(0);
  gnutls_global_set_log_function(SslControl::logFunction);
  gnutls_global_init();
  initSemaphore->release(1);
  INSTANCE = control;
}

void SslUnload() {
  if (!PelkosslLoaded()) return;
  if (INSTANCE) {
    LOG(1, ("Destroy SslControl "));
    initSemaphore->wait();
    gnutls_global_deinit();
    initSemaphore->release(1);
    delete INSTANCE;
    INSTANCE = nullptr;
  }
  delete initSemaphore;
  initSemaphore = nullptr;
}

SI4 SslTrace(SI4 level) {
  if (!PelkosslLoaded()) return 0;
  gnutls_global_set_log_function(SslControl::logFunction);
  gnutls_global_set_log_level(level);
  return 0;
}
