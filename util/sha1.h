// SHA-1 (FIPS 180-1) with the interface of RFC 3174.
#pragma once

#include <cstdint>

enum { shaSuccess = 0, shaNull, shaInputTooLong, shaStateError };

#define SHA1HashSize 20

typedef struct SHA1Context {
  uint32_t Intermediate_Hash[SHA1HashSize / 4];
  uint32_t Length_Low;   // message length in bits
  uint32_t Length_High;
  int_least16_t Message_Block_Index;
  uint8_t Message_Block[64];
  int Computed;   // the digest is final
  int Corrupted;  // an error stopped the computation
} SHA1Context;

int SHA1Reset(SHA1Context* context);
int SHA1Input(SHA1Context* context, const uint8_t* message_array, unsigned int length);
int SHA1Result(SHA1Context* context, uint8_t Message_Digest[SHA1HashSize]);
