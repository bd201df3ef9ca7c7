// Integrated security: authenticating a peer through the platform, taking
// its token and acting on its behalf. Nothing of it exists on this platform;
// every entry answers ERR_NONCE and does nothing else.
#pragma once

#include "taltypes.h"
#include "vapl.h"

class CONNECTION;

SI4 GetSecurity(PCH1 buf, SI4 size);
SI4 StartAuthentication(CONNECTION* pConn, PAA value);
SI4 SetToken(CONNECTION* pConn, PAA value);
SI4 GetToken(CONNECTION* pConn, PPAA ppOut);
SI4 GetName(CONNECTION* pConn, PPAA ppOut);
SI4 Impersonate(CONNECTION* pConn, PAA value);
SI4 MakeFileAs(CONNECTION* pConn, PAA value);
// Harmless on a connection that never authenticated.
SI4 FreeAuth(CONNECTION* pConn);
