// Integrated security has no counterpart on this platform.
#include "security.h"

#include "pelkoerr.h"

SI4 GetSecurity(PCH1, SI4) { return ERR_NONCE; }
SI4 StartAuthentication(CONNECTION*, PAA) { return ERR_NONCE; }
SI4 SetToken(CONNECTION*, PAA) { return ERR_NONCE; }
SI4 GetToken(CONNECTION*, PPAA) { return ERR_NONCE; }
SI4 GetName(CONNECTION*, PPAA) { return ERR_NONCE; }
SI4 Impersonate(CONNECTION*, PAA) { return ERR_NONCE; }
SI4 MakeFileAs(CONNECTION*, PAA) { return ERR_NONCE; }
SI4 FreeAuth(CONNECTION*) { return ERR_NONCE; }
