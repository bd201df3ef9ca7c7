/* The companion of pelko31_64.so. Everything else it offers comes from its
 * dependencies; see CMakeLists.txt. */
#include <gnutls/gnutls.h>
#include <libtasn1.h>
#include <stdio.h>
#include <zlib.h>

#define EXPORT __attribute__((visibility("default")))

/* The version text of the companion and of the three libraries behind it.
 * The result is the length of the full text, so always positive; with a
 * short buffer the text is cut but terminated. */
EXPORT int pelkosslversion(char* ver, int size) {
  return snprintf(ver, size > 0 ? (size_t)size : 0, "pelkossl %s GnuTLS %s libtasn1 %s zlib %s",
                  PELKOSSL_VERSION, gnutls_check_version(NULL), asn1_check_version(NULL),
                  zlibVersion());
}

/* GnuTLS has these two names only as macros for the functions ending in 2,
 * so the library would find nothing under them without these. */
#undef gnutls_srp_base64_encode_alloc
#undef gnutls_srp_base64_decode_alloc

EXPORT int gnutls_srp_base64_encode_alloc(const gnutls_datum_t* data, gnutls_datum_t* result) {
  return gnutls_srp_base64_encode2(data, result);
}

EXPORT int gnutls_srp_base64_decode_alloc(const gnutls_datum_t* b64_data,
                                          gnutls_datum_t* result) {
  return gnutls_srp_base64_decode2(b64_data, result);
}
