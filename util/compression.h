// The host's door to zlib: one deflate or inflate stream per context, kept
// by the host between calls of the export cflate.
#pragma once

#include <zlib.h>

#include "aplrpc.h"

// cflate's flag bits.
#define CFLATE_INFLATE 1  // else deflate
#define CFLATE_FINISH 2   // Z_FINISH, and close at the stream's end
#define CFLATE_CLOSE 4    // close now, with no data

struct aplses {
  Bytef* inbuffer;  // the stream's own copy of the pending input
  z_stream s;
};
