// cflate: the stream lives from a call with a null context to a close.
#include "compression.h"

#include <cstdlib>
#include <cstring>

#include "pelkoerr.h"
#include "pelkossl.h"

// zlib checks the version text and the record size it was built for.
#define CFLATE_ZLIB_VERSION "1.2.11"
static_assert(sizeof(z_stream) == 112, "z_stream has the size zlib is told");

static SI4 OpenStream(paplses* ctx, bool inflating, int level) {
  paplses p = (paplses)calloc(1, sizeof(aplses));
  if (!p) return Z_MEM_ERROR;
  *ctx = p;
  return inflating ? inflateInit_(&p->s, CFLATE_ZLIB_VERSION, 112)
                   : deflateInit_(&p->s, level, CFLATE_ZLIB_VERSION, 112);
}

// Takes new input only once the last has been consumed: until then the
// caller repeats its call and reads in *inLength what is still pending.
static SI4 Step(paplses p, int flags, Bytef* in, uInt* inLength, Bytef* out, uInt* outLength) {
  if (p->s.avail_in == 0 && *inLength != 0) {
    free(p->inbuffer);
    p->inbuffer = (Bytef*)malloc(*inLength);
    p->s.next_in = p->inbuffer;
    if (!p->inbuffer) return Z_MEM_ERROR;
    memcpy(p->inbuffer, in, *inLength);
    p->s.avail_in = *inLength;
  }
  p->s.next_out = out;
  p->s.avail_out = *outLength;
  int flush = flags & CFLATE_FINISH ? Z_FINISH : Z_NO_FLUSH;
  SI4 rc = flags & CFLATE_INFLATE ? inflate(&p->s, flush) : deflate(&p->s, flush);
  *outLength -= p->s.avail_out;
  *inLength = p->s.avail_in;
  return rc;
}

static SI4 CloseStream(paplses* ctx, bool inflating) {
  paplses p = *ctx;
  free(p->inbuffer);
  SI4 rc = inflating ? inflateEnd(&p->s) : deflateEnd(&p->s);
  free(p);
  *ctx = nullptr;
  return rc;
}

SI4 cflate(int flags, paplses* ctx, Bytef* in, uInt* inLength, Bytef* out, uInt* outLength,
           int level) {
  // Without the companion there is no zlib to call.
  if (!PelkosslLoaded()) return ERR_NO_SSL_SUPPORT;
  bool inflating = flags & CFLATE_INFLATE;
  if (!*ctx) {
    SI4 rc = OpenStream(ctx, inflating, level);
    if (rc) return rc;
  }
  if (!(flags & CFLATE_CLOSE)) {
    SI4 rc = Step(*ctx, flags, in, inLength, out, outLength);
    if (!(flags & CFLATE_FINISH && rc == Z_STREAM_END)) return rc;
  }
  return CloseStream(ctx, inflating);
}
