// Certificate arguments of the opening verbs, as far as the connection and
// server families need them.
#pragma once

#include "socket.h"

// Reads the certificate options of an option list into *out; null when
// none was given. A request that can't be served answers its code.
SI4 GetCert(PAA arg, PCERTDATA* out);
// Gives back a reference taken by GetCert or by an object that stores it.
void FreeCert(PCERTDATA cert);
