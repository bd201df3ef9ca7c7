// TLS sockets and the global start and stop of GnuTLS.
#pragma once

#include "taltypes.h"

// Starts GnuTLS once for the process, with its log routed into ours. Does
// nothing while the companion isn't loaded.
void SslLoad();
// Stops GnuTLS again. Does nothing while the companion isn't loaded.
void SslUnload();
// The level of GnuTLS's own diagnostics, from the root's "TraceGnuTLS".
// Skipped while the companion isn't loaded.
SI4 SslTrace(SI4 level);

// The one object that stands for a started GnuTLS.
class SslControl {
 public:
  static void logFunction(int level, const char* text);
};
