// The xor mask of WebSocket frames.
#pragma once

#include "taltypes.h"

// Xors data[i] with key[i % keyLength]; applying it twice restores the data.
void mask(PCH1 data, UL length, PCH1 key, UI4 keyLength);
