#include "sha1.h"

static uint32_t SHA1CircularShift(int bits, uint32_t word) {
  return word << bits | word >> (32 - bits);
}

static void SHA1ProcessMessageBlock(SHA1Context* context);
static void SHA1PadMessage(SHA1Context* context);

int SHA1Reset(SHA1Context* context) {
  if (!context) return shaNull;
  context->Length_Low = 0;
  context->Length_High = 0;
  context->Message_Block_Index = 0;
  context->Intermediate_Hash[0] = 0x67452301;
  context->Intermediate_Hash[1] = 0xEFCDAB89;
  context->Intermediate_Hash[2] = 0x98BADCFE;
  context->Intermediate_Hash[3] = 0x10325476;
  context->Intermediate_Hash[4] = 0xC3D2E1F0;
  context->Computed = 0;
  context->Corrupted = 0;
  return shaSuccess;
}

int SHA1Result(SHA1Context* context, uint8_t Message_Digest[SHA1HashSize]) {
  if (!context || !Message_Digest) return shaNull;
  if (context->Corrupted) return context->Corrupted;
  if (!context->Computed) {
    SHA1PadMessage(context);
    // The message may not stay in memory once the digest is taken.
    for (int i = 0; i < 64; ++i) context->Message_Block[i] = 0;
    context->Length_Low = 0;
    context->Length_High = 0;
    context->Computed = 1;
  }
  for (int i = 0; i < SHA1HashSize; ++i)
    Message_Digest[i] = (uint8_t)(context->Intermediate_Hash[i >> 2] >> 8 * (3 - (i & 3)));
  return shaSuccess;
}

int SHA1Input(SHA1Context* context, const uint8_t* message_array, unsigned int length) {
  if (!length) return shaSuccess;
  if (!context || !message_array) return shaNull;
  if (context->Computed) {
    context->Corrupted = shaStateError;
    return shaStateError;
  }
  if (context->Corrupted) return context->Corrupted;
  while (length-- && !context->Corrupted) {
    context->Message_Block[context->Message_Block_Index++] = *message_array & 0xFF;
    context->Length_Low += 8;
    if (context->Length_Low == 0) {
      context->Length_High++;
      if (context->Length_High == 0) context->Corrupted = shaInputTooLong;  // 2^64 bits
    }
    if (context->Message_Block_Index == 64) SHA1ProcessMessageBlock(context);
    message_array++;
  }
  return context->Corrupted ? context->Corrupted : shaSuccess;
}

static void SHA1ProcessMessageBlock(SHA1Context* context) {
  static const uint32_t K[] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};
  uint32_t W[80];
  for (int t = 0; t < 16; t++) {
    W[t] = (uint32_t)context->Message_Block[t * 4] << 24;
    W[t] |= (uint32_t)context->Message_Block[t * 4 + 1] << 16;
    W[t] |= (uint32_t)context->Message_Block[t * 4 + 2] << 8;
    W[t] |= (uint32_t)context->Message_Block[t * 4 + 3];
  }
  for (int t = 16; t < 80; t++) W[t] = SHA1CircularShift(1, W[t - 3] ^ W[t - 8] ^ W[t - 14] ^ W[t - 16]);

  uint32_t A = context->Intermediate_Hash[0];
  uint32_t B = context->Intermediate_Hash[1];
  uint32_t C = context->Intermediate_Hash[2];
  uint32_t D = context->Intermediate_Hash[3];
  uint32_t E = context->Intermediate_Hash[4];
  for (int t = 0; t < 80; t++) {
    uint32_t f;
    if (t < 20)
      f = (B & C) | (~B & D);
    else if (t < 40 || t >= 60)
      f = B ^ C ^ D;
    else
      f = (B & C) | (B & D) | (C & D);
    uint32_t temp = SHA1CircularShift(5, A) + f + E + W[t] + K[t / 20];
    E = D;
    D = C;
    C = SHA1CircularShift(30, B);
    B = A;
    A = temp;
  }
  context->Intermediate_Hash[0] += A;
  context->Intermediate_Hash[1] += B;
  context->Intermediate_Hash[2] += C;
  context->Intermediate_Hash[3] += D;
  context->Intermediate_Hash[4] += E;
  context->Message_Block_Index = 0;
}

// Appends the 1 bit, zeros, and the 64-bit length, which may take one more
// block when the message ends less than 8 bytes before a block's end.
static void SHA1PadMessage(SHA1Context* context) {
  if (context->Message_Block_Index > 55) {
    context->Message_Block[context->Message_Block_Index++] = 0x80;
    while (context->Message_Block_Index < 64) context->Message_Block[context->Message_Block_Index++] = 0;
    SHA1ProcessMessageBlock(context);
    while (context->Message_Block_Index < 56) context->Message_Block[context->Message_Block_Index++] = 0;
  } else {
    context->Message_Block[context->Message_Block_Index++] = 0x80;
    while (context->Message_Block_Index < 56) context->Message_Block[context->Message_Block_Index++] = 0;
  }
  for (int i = 0; i < 4; i++) {
    context->Message_Block[56 + i] = (uint8_t)(context->Length_High >> 8 * (3 - i));
    context->Message_Block[60 + i] = (uint8_t)(context->Length_Low >> 8 * (3 - i));
  }
  SHA1ProcessMessageBlock(context);
}
