// Text forms of binary data: base 64 (RFC 4648) and lower-case hexadecimal.
#pragma once

#include "taltypes.h"

extern const char BASE64[];

// Writes the base 64 text of in, with "=" padding and a terminator, unless
// out is null. Gives the length of the text without terminator.
UI4 encode64(PCH1 out, PUI1 in, UI4 length);
// Writes two hexadecimal digits per byte, without terminator, unless out is
// null. Gives the length of the text.
UI4 encodeHex(PCH1 out, PUI1 in, UI4 length);
