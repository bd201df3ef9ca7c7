// The TLS and compression companion, opened at run time. The library calls
// GnuTLS, libtasn1 and zlib by their own names, but what it reaches are
// local functions of those names that jump through a table filled from the
// companion. Without the companion the table stays empty and only plain
// sockets work: every user tests PelkosslLoaded first.
#pragma once

#include <gnutls/abstract.h>
#include <gnutls/compat.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <gnutls/pkcs12.h>
#include <gnutls/system-keys.h>
#include <gnutls/x509.h>
#include <libtasn1.h>
#include <zlib.h>

#include "talplat.h"

#define PELKOSSL_LIBRARY_DEFAULT "libpelko31ssl64.so"

extern "C" int pelkosslversion(char* ver, int size);

// Every function of the companion: X(result, name, parameters, arguments).
// Adding a function is one entry here.
#define DYNAMIC_FUNCTION(X) \
  X(int, pelkosslversion, (char* ver, int size), (ver, size)) \
  X(const char*, zlibVersion, (), ()) \
  X(int, deflateInit_, (z_streamp strm, int level, const char* version, int stream_size), (strm, \
      level, version, stream_size)) \
  X(int, deflate, (z_streamp strm, int flush), (strm, flush)) \
  X(int, deflateEnd, (z_streamp strm), (strm)) \
  X(int, inflateInit_, (z_streamp strm, const char* version, int stream_size), (strm, version, \
      stream_size)) \
  X(int, inflate, (z_streamp strm, int flush), (strm, flush)) \
  X(int, inflateEnd, (z_streamp strm), (strm)) \
  X(uLong, zlibCompileFlags, (), ()) \
  X(int, compress, (Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen), (dest, \
      destLen, source, sourceLen)) \
  X(int, compress2, (Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen, \
      int level), (dest, destLen, source, sourceLen, level)) \
  X(uLong, compressBound, (uLong sourceLen), (sourceLen)) \
  X(int, uncompress, (Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen), (dest, \
      destLen, source, sourceLen)) \
  X(const char*, gnutls_check_version, (const char* req_version), (req_version)) \
  X(int, gnutls_certificate_allocate_credentials, (gnutls_certificate_credentials_t* res), (res)) \
  X(void, gnutls_certificate_free_credentials, (gnutls_certificate_credentials_t sc), (sc)) \
  X(const gnutls_datum_t*, gnutls_certificate_get_peers, (gnutls_session_t session, \
      unsigned int* list_size), (session, list_size)) \
  X(void, gnutls_certificate_send_x509_rdn_sequence, (gnutls_session_t session, int status), \
      (session, status)) \
  X(void, gnutls_certificate_server_set_request, (gnutls_session_t session, \
      gnutls_certificate_request_t req), (session, req)) \
  X(int, gnutls_certificate_set_x509_key_file, (gnutls_certificate_credentials_t res, \
      const char* certfile, const char* keyfile, gnutls_x509_crt_fmt_t type), (res, certfile, \
      keyfile, type)) \
  X(int, gnutls_credentials_set, (gnutls_session_t session, gnutls_credentials_type_t type, \
      void* cred), (session, type, cred)) \
  X(void, gnutls_db_set_retrieve_function, (gnutls_session_t session, \
      gnutls_db_retr_func retr_func), (session, retr_func)) \
  X(void, gnutls_db_set_remove_function, (gnutls_session_t session, \
      gnutls_db_remove_func rem_func), (session, rem_func)) \
  X(void, gnutls_db_set_store_function, (gnutls_session_t session, \
      gnutls_db_store_func store_func), (session, store_func)) \
  X(void, gnutls_db_set_ptr, (gnutls_session_t session, void* ptr), (session, ptr)) \
  X(void*, gnutls_db_get_ptr, (gnutls_session_t session), (session)) \
  X(int, gnutls_global_init, (), ()) \
  X(void, gnutls_global_deinit, (), ()) \
  X(void, gnutls_global_set_log_function, (gnutls_log_func log_func), (log_func)) \
  X(void, gnutls_global_set_audit_log_function, (gnutls_audit_log_func log_func), (log_func)) \
  X(void, gnutls_global_set_log_level, (int level), (level)) \
  X(int, gnutls_handshake, (gnutls_session_t session), (session)) \
  X(int, gnutls_rehandshake, (gnutls_session_t session), (session)) \
  X(int, gnutls_init, (gnutls_session_t* session, unsigned int flags), (session, flags)) \
  X(void, gnutls_deinit, (gnutls_session_t session), (session)) \
  X(int, gnutls_certificate_set_x509_key_mem, (gnutls_certificate_credentials_t res, \
      const gnutls_datum_t* cert, const gnutls_datum_t* key, gnutls_x509_crt_fmt_t type), (res, \
      cert, key, type)) \
  X(const char*, gnutls_pk_algorithm_get_name, (gnutls_pk_algorithm_t algorithm), (algorithm)) \
  X(int, gnutls_priority_set, (gnutls_session_t session, gnutls_priority_t priority), (session, \
      priority)) \
  X(int, gnutls_priority_set_direct, (gnutls_session_t session, const char* priorities, \
      const char** err_pos), (session, priorities, err_pos)) \
  X(ssize_t, gnutls_record_send, (gnutls_session_t session, const void* data, size_t data_size), \
      (session, data, data_size)) \
  X(ssize_t, gnutls_record_recv, (gnutls_session_t session, void* data, size_t data_size), \
      (session, data, data_size)) \
  X(int, gnutls_session_set_data, (gnutls_session_t session, const void* session_data, \
      size_t session_data_size), (session, session_data, session_data_size)) \
  X(int, gnutls_session_get_data, (gnutls_session_t session, void* session_data, \
      size_t* session_data_size), (session, session_data, session_data_size)) \
  X(int, gnutls_session_get_data2, (gnutls_session_t session, gnutls_datum_t* data), (session, \
      data)) \
  X(int, gnutls_session_is_resumed, (gnutls_session_t session), (session)) \
  X(int, gnutls_server_name_set, (gnutls_session_t session, gnutls_server_name_type_t type, \
      const void* name, size_t name_length), (session, type, name, name_length)) \
  X(void, gnutls_transport_set_ptr, (gnutls_session_t session, gnutls_transport_ptr_t ptr), \
      (session, ptr)) \
  X(void, gnutls_transport_set_ptr2, (gnutls_session_t session, gnutls_transport_ptr_t recv_ptr, \
      gnutls_transport_ptr_t send_ptr), (session, recv_ptr, send_ptr)) \
  X(void, gnutls_transport_set_push_function, (gnutls_session_t session, \
      gnutls_push_func push_func), (session, push_func)) \
  X(int, gnutls_x509_crt_init, (gnutls_x509_crt_t* cert), (cert)) \
  X(void, gnutls_x509_crt_deinit, (gnutls_x509_crt_t cert), (cert)) \
  X(int, gnutls_x509_crt_import, (gnutls_x509_crt_t cert, const gnutls_datum_t* data, \
      gnutls_x509_crt_fmt_t format), (cert, data, format)) \
  X(int, gnutls_x509_crt_list_import2, (gnutls_x509_crt_t** certs, unsigned int* size, \
      const gnutls_datum_t* data, gnutls_x509_crt_fmt_t format, unsigned int flags), (certs, size, \
      data, format, flags)) \
  X(int, gnutls_x509_crt_list_import, (gnutls_x509_crt_t* certs, unsigned int* cert_max, \
      const gnutls_datum_t* data, gnutls_x509_crt_fmt_t format, unsigned int flags), (certs, \
      cert_max, data, format, flags)) \
  X(int, gnutls_x509_crt_export, (gnutls_x509_crt_t cert, gnutls_x509_crt_fmt_t format, \
      void* output_data, size_t* output_data_size), (cert, format, output_data, output_data_size)) \
  X(int, gnutls_x509_crt_export2, (gnutls_x509_crt_t cert, gnutls_x509_crt_fmt_t format, \
      gnutls_datum_t* out), (cert, format, out)) \
  X(int, gnutls_x509_crt_get_private_key_usage_period, (gnutls_x509_crt_t cert, \
      time_t* activation, time_t* expiration, unsigned int* critical), (cert, activation, \
      expiration, critical)) \
  X(int, gnutls_x509_crt_get_issuer_dn, (gnutls_x509_crt_t cert, char* buf, size_t* buf_size), \
      (cert, buf, buf_size)) \
  X(int, gnutls_x509_crt_get_issuer_dn2, (gnutls_x509_crt_t cert, gnutls_datum_t* dn), (cert, dn)) \
  X(int, gnutls_x509_crt_get_issuer_dn_oid, (gnutls_x509_crt_t cert, unsigned indx, void* oid, \
      size_t* oid_size), (cert, indx, oid, oid_size)) \
  X(int, gnutls_x509_crt_get_issuer_dn_by_oid, (gnutls_x509_crt_t cert, const char* oid, \
      unsigned indx, unsigned int raw_flag, void* buf, size_t* buf_size), (cert, oid, indx, \
      raw_flag, buf, buf_size)) \
  X(int, gnutls_x509_crt_get_dn, (gnutls_x509_crt_t cert, char* buf, size_t* buf_size), (cert, \
      buf, buf_size)) \
  X(int, gnutls_x509_crt_get_dn2, (gnutls_x509_crt_t cert, gnutls_datum_t* dn), (cert, dn)) \
  X(int, gnutls_x509_crt_get_dn_oid, (gnutls_x509_crt_t cert, unsigned indx, void* oid, \
      size_t* oid_size), (cert, indx, oid, oid_size)) \
  X(int, gnutls_x509_crt_get_dn_by_oid, (gnutls_x509_crt_t cert, const char* oid, unsigned indx, \
      unsigned int raw_flag, void* buf, size_t* buf_size), (cert, oid, indx, raw_flag, buf, \
      buf_size)) \
  X(unsigned, gnutls_x509_crt_check_hostname, (gnutls_x509_crt_t cert, const char* hostname), \
      (cert, hostname)) \
  X(unsigned, gnutls_x509_crt_check_hostname2, (gnutls_x509_crt_t cert, const char* hostname, \
      unsigned int flags), (cert, hostname, flags)) \
  X(int, gnutls_x509_crt_get_signature_algorithm, (gnutls_x509_crt_t cert), (cert)) \
  X(int, gnutls_x509_crt_get_signature, (gnutls_x509_crt_t cert, char* sig, size_t* sizeof_sig), \
      (cert, sig, sizeof_sig)) \
  X(int, gnutls_x509_crt_get_version, (gnutls_x509_crt_t cert), (cert)) \
  X(int, gnutls_x509_crt_get_key_id, (gnutls_x509_crt_t crt, unsigned int flags, \
      unsigned char* output_data, size_t* output_data_size), (crt, flags, output_data, \
      output_data_size)) \
  X(int, gnutls_x509_crt_set_private_key_usage_period, (gnutls_x509_crt_t crt, time_t activation, \
      time_t expiration), (crt, activation, expiration)) \
  X(int, gnutls_x509_crt_set_authority_key_id, (gnutls_x509_crt_t cert, const void* id, \
      size_t id_size), (cert, id, id_size)) \
  X(int, gnutls_x509_crt_get_authority_key_id, (gnutls_x509_crt_t cert, void* id, size_t* id_size, \
      unsigned int* critical), (cert, id, id_size, critical)) \
  X(int, gnutls_x509_crt_get_authority_key_gn_serial, (gnutls_x509_crt_t cert, unsigned int seq, \
      void* alt, size_t* alt_size, unsigned int* alt_type, void* serial, size_t* serial_size, \
      unsigned int* critical), (cert, seq, alt, alt_size, alt_type, serial, serial_size, \
      critical)) \
  X(int, gnutls_x509_crt_get_subject_key_id, (gnutls_x509_crt_t cert, void* ret, size_t* ret_size, \
      unsigned int* critical), (cert, ret, ret_size, critical)) \
  X(int, gnutls_x509_crt_get_subject_unique_id, (gnutls_x509_crt_t crt, char* buf, \
      size_t* buf_size), (crt, buf, buf_size)) \
  X(int, gnutls_x509_crt_get_issuer_unique_id, (gnutls_x509_crt_t crt, char* buf, \
      size_t* buf_size), (crt, buf, buf_size)) \
  X(void, gnutls_x509_crt_set_pin_function, (gnutls_x509_crt_t crt, gnutls_pin_callback_t fn, \
      void* userdata), (crt, fn, userdata)) \
  X(int, gnutls_x509_crt_get_serial, (gnutls_x509_crt_t cert, void* result, size_t* result_size), \
      (cert, result, result_size)) \
  X(int, gnutls_x509_crt_get_pk_algorithm, (gnutls_x509_crt_t cert, unsigned int* bits), (cert, \
      bits)) \
  X(int, gnutls_x509_crt_get_subject_alt_name, (gnutls_x509_crt_t cert, unsigned int seq, \
      void* san, size_t* san_size, unsigned int* critical), (cert, seq, san, san_size, critical)) \
  X(int, gnutls_x509_crt_get_subject_alt_name2, (gnutls_x509_crt_t cert, unsigned int seq, \
      void* san, size_t* san_size, unsigned int* san_type, unsigned int* critical), (cert, seq, \
      san, san_size, san_type, critical)) \
  X(int, gnutls_x509_crt_list_verify, (const gnutls_x509_crt_t* cert_list, \
      unsigned cert_list_length, const gnutls_x509_crt_t* CA_list, unsigned CA_list_length, \
      const gnutls_x509_crl_t* CRL_list, unsigned CRL_list_length, unsigned int flags, \
      unsigned int* verify), (cert_list, cert_list_length, CA_list, CA_list_length, CRL_list, \
      CRL_list_length, flags, verify)) \
  X(int, gnutls_x509_crt_get_extension_info, (gnutls_x509_crt_t cert, unsigned indx, void* oid, \
      size_t* oid_size, unsigned int* critical), (cert, indx, oid, oid_size, critical)) \
  X(int, gnutls_x509_crt_get_extension_data, (gnutls_x509_crt_t cert, unsigned indx, void* data, \
      size_t* sizeof_data), (cert, indx, data, sizeof_data)) \
  X(int, gnutls_x509_crt_get_basic_constraints, (gnutls_x509_crt_t cert, unsigned int* critical, \
      unsigned int* ca, int* pathlen), (cert, critical, ca, pathlen)) \
  X(int, gnutls_x509_crt_get_key_purpose_oid, (gnutls_x509_crt_t cert, unsigned indx, void* oid, \
      size_t* oid_size, unsigned int* critical), (cert, indx, oid, oid_size, critical)) \
  X(int, gnutls_x509_crt_get_crl_dist_points, (gnutls_x509_crt_t cert, unsigned int seq, \
      void* ret, size_t* ret_size, unsigned int* reason_flags, unsigned int* critical), (cert, \
      seq, ret, ret_size, reason_flags, critical)) \
  X(int, gnutls_pem_base64_encode, (const char* msg, const gnutls_datum_t* data, char* result, \
      size_t* result_size), (msg, data, result, result_size)) \
  X(int, gnutls_pem_base64_decode, (const char* header, const gnutls_datum_t* b64_data, \
      unsigned char* result, size_t* result_size), (header, b64_data, result, result_size)) \
  X(int, gnutls_srp_base64_encode, (const gnutls_datum_t* data, char* result, \
      size_t* result_size), (data, result, result_size)) \
  X(int, gnutls_srp_base64_encode_alloc, (const gnutls_datum_t* data, gnutls_datum_t* result), \
      (data, result)) \
  X(int, gnutls_srp_base64_decode, (const gnutls_datum_t* b64_data, char* result, \
      size_t* result_size), (b64_data, result, result_size)) \
  X(int, gnutls_srp_base64_decode_alloc, (const gnutls_datum_t* b64_data, gnutls_datum_t* result), \
      (b64_data, result)) \
  X(int, gnutls_certificate_set_x509_key, (gnutls_certificate_credentials_t res, \
      gnutls_x509_crt_t* cert_list, int cert_list_size, gnutls_x509_privkey_t key), (res, \
      cert_list, cert_list_size, key)) \
  X(int, gnutls_certificate_set_x509_trust, (gnutls_certificate_credentials_t res, \
      gnutls_x509_crt_t* ca_list, int ca_list_size), (res, ca_list, ca_list_size)) \
  X(int, gnutls_certificate_set_x509_crl, (gnutls_certificate_credentials_t res, \
      gnutls_x509_crl_t* crl_list, int crl_list_size), (res, crl_list, crl_list_size)) \
  X(void, gnutls_session_set_ptr, (gnutls_session_t session, void* ptr), (session, ptr)) \
  X(void*, gnutls_session_get_ptr, (gnutls_session_t session), (session)) \
  X(int, gnutls_x509_rdn_get, (const gnutls_datum_t* idn, char* buf, size_t* sizeof_buf), (idn, \
      buf, sizeof_buf)) \
  X(size_t, gnutls_record_check_pending, (gnutls_session_t session), (session)) \
  X(const char*, gnutls_sign_get_name, (gnutls_sign_algorithm_t algorithm), (algorithm)) \
  X(int, gnutls_bye, (gnutls_session_t session, gnutls_close_request_t how), (session, how)) \
  X(void, gnutls_global_set_mem_functions, (gnutls_alloc_function alloc_func, \
      gnutls_alloc_function secure_alloc_func, gnutls_is_secure_function is_secure_func, \
      gnutls_realloc_function realloc_func, gnutls_free_function free_func), (alloc_func, \
      secure_alloc_func, is_secure_func, realloc_func, free_func)) \
  X(int, gnutls_x509_privkey_init, (gnutls_x509_privkey_t* key), (key)) \
  X(void, gnutls_x509_privkey_deinit, (gnutls_x509_privkey_t key), (key)) \
  X(int, gnutls_x509_privkey_import, (gnutls_x509_privkey_t key, const gnutls_datum_t* data, \
      gnutls_x509_crt_fmt_t format), (key, data, format)) \
  X(int, gnutls_certificate_set_x509_system_trust, (gnutls_certificate_credentials_t cred), \
      (cred)) \
  X(int, gnutls_certificate_verify_peers2, (gnutls_session_t session, unsigned int* status), \
      (session, status)) \
  X(time_t, gnutls_x509_crt_get_activation_time, (gnutls_x509_crt_t cert), (cert)) \
  X(time_t, gnutls_x509_crt_get_expiration_time, (gnutls_x509_crt_t cert), (cert)) \
  X(int, gnutls_x509_crt_get_key_usage, (gnutls_x509_crt_t cert, unsigned int* key_usage, \
      unsigned int* critical), (cert, key_usage, critical)) \
  X(int, gnutls_x509_crt_get_raw_issuer_dn, (gnutls_x509_crt_t cert, gnutls_datum_t* start), \
      (cert, start)) \
  X(int, gnutls_x509_crt_get_raw_dn, (gnutls_x509_crt_t cert, gnutls_datum_t* start), (cert, \
      start)) \
  X(int, asn1_read_value, (asn1_node_const root, const char* name, void* ivalue, int* len), (root, \
      name, ivalue, len)) \
  X(int, asn1_number_of_elements, (asn1_node_const element, const char* name, int* num), (element, \
      name, num)) \
  X(gnutls_certificate_type_t, gnutls_certificate_type_get, (gnutls_session_t session), (session)) \
  X(int, gnutls_hash_init, (gnutls_hash_hd_t* dig, gnutls_digest_algorithm_t algorithm), (dig, \
      algorithm)) \
  X(int, gnutls_hash, (gnutls_hash_hd_t handle, const void* text, size_t textlen), (handle, text, \
      textlen)) \
  X(void, gnutls_hash_deinit, (gnutls_hash_hd_t handle, void* digest), (handle, digest)) \
  X(unsigned, gnutls_hash_get_len, (gnutls_digest_algorithm_t algorithm), (algorithm)) \
  X(void, gnutls_system_key_iter_deinit, (gnutls_system_key_iter_t iter), (iter)) \
  X(int, gnutls_system_key_iter_get_info, (gnutls_system_key_iter_t* iter, unsigned cert_type, \
      char** cert_url, char** key_url, char** label, gnutls_datum_t* der, unsigned int flags), \
      (iter, cert_type, cert_url, key_url, label, der, flags)) \
  X(int, gnutls_system_key_delete, (const char* cert_url, const char* key_url), (cert_url, \
      key_url)) \
  X(int, gnutls_system_key_add_x509, (gnutls_x509_crt_t crt, gnutls_x509_privkey_t privkey, \
      const char* label, char** cert_url, char** key_url), (crt, privkey, label, cert_url, \
      key_url)) \
  X(int, gnutls_pubkey_import_url, (gnutls_pubkey_t key, const char* url, unsigned int flags), \
      (key, url, flags)) \
  X(int, gnutls_privkey_init, (gnutls_privkey_t* key), (key)) \
  X(void, gnutls_privkey_deinit, (gnutls_privkey_t key), (key)) \
  X(int, gnutls_privkey_import_x509_raw, (gnutls_privkey_t pkey, const gnutls_datum_t* data, \
      gnutls_x509_crt_fmt_t format, const char* password, unsigned int flags), (pkey, data, \
      format, password, flags)) \
  X(void, gnutls_pcert_deinit, (gnutls_pcert_st* pcert), (pcert)) \
  X(int, gnutls_pcert_import_x509, (gnutls_pcert_st* pcert, gnutls_x509_crt_t crt, \
      unsigned int flags), (pcert, crt, flags)) \
  X(int, gnutls_pcert_list_import_x509_raw, (gnutls_pcert_st* pcerts, unsigned int* pcert_max, \
      const gnutls_datum_t* data, gnutls_x509_crt_fmt_t format, unsigned int flags), (pcerts, \
      pcert_max, data, format, flags)) \
  X(int, gnutls_pcert_import_x509_raw, (gnutls_pcert_st* pcert, const gnutls_datum_t* cert, \
      gnutls_x509_crt_fmt_t format, unsigned int flags), (pcert, cert, format, flags)) \
  X(int, gnutls_pkcs12_init, (gnutls_pkcs12_t* pkcs12), (pkcs12)) \
  X(void, gnutls_pkcs12_deinit, (gnutls_pkcs12_t pkcs12), (pkcs12)) \
  X(int, gnutls_pkcs12_import, (gnutls_pkcs12_t pkcs12, const gnutls_datum_t* data, \
      gnutls_x509_crt_fmt_t format, unsigned int flags), (pkcs12, data, format, flags)) \
  X(int, gnutls_pkcs12_verify_mac, (gnutls_pkcs12_t pkcs12, const char* pass), (pkcs12, pass)) \
  X(int, gnutls_pkcs12_simple_parse, (gnutls_pkcs12_t p12, const char* password, \
      gnutls_x509_privkey_t* key, gnutls_x509_crt_t** chain, unsigned int* chain_len, \
      gnutls_x509_crt_t** extra_certs, unsigned int* extra_certs_len, gnutls_x509_crl_t* crl, \
      unsigned int flags), (p12, password, key, chain, chain_len, extra_certs, extra_certs_len, \
      crl, flags)) \
  X(int, gnutls_hex_decode, (const gnutls_datum_t* hex_data, void* result, size_t* result_size), \
      (hex_data, result, result_size)) \
  X(int, gnutls_privkey_import_x509, (gnutls_privkey_t pkey, gnutls_x509_privkey_t key, \
      unsigned int flags), (pkey, key, flags)) \
  X(int, gnutls_privkey_import_url, (gnutls_privkey_t key, const char* url, unsigned int flags), \
      (key, url, flags)) \
  X(int, gnutls_privkey_import_ext3, (gnutls_privkey_t pkey, void* userdata, \
      gnutls_privkey_sign_func sign_func, gnutls_privkey_decrypt_func decrypt_func, \
      gnutls_privkey_deinit_func deinit_func, gnutls_privkey_info_func info_func, \
      unsigned int flags), (pkey, userdata, sign_func, decrypt_func, deinit_func, info_func, \
      flags)) \
  X(int, gnutls_certificate_set_key, (gnutls_certificate_credentials_t res, const char** names, \
      int names_size, gnutls_pcert_st* pcert_list, int pcert_list_size, gnutls_privkey_t key), \
      (res, names, names_size, pcert_list, pcert_list_size, key))


// The allocators of GnuTLS are variables holding function pointers, so the
// table keeps the address of each and the TAL_ functions call its current
// value: Y(result, name, parameters, arguments).
#define DYNAMIC_VARIABLE(Y)                                 \
  Y(void*, gnutls_malloc, (size_t size), (size))            \
  Y(void*, gnutls_calloc, (size_t count, size_t size), (count, size)) \
  Y(void*, gnutls_realloc, (void* p, size_t size), (p, size)) \
  Y(void, gnutls_free, (void* p), (p))

#define PELKOSSL_TYPE(R, N, AT, AN) typedef R(*T##N) AT;
DYNAMIC_FUNCTION(PELKOSSL_TYPE)
DYNAMIC_VARIABLE(PELKOSSL_TYPE)
#undef PELKOSSL_TYPE

struct PELKOSSL {
  PTALLIB ipelkossl;  // the companion; set means loaded
#define PELKOSSL_SLOT(R, N, AT, AN) T##N N;
  DYNAMIC_FUNCTION(PELKOSSL_SLOT)
#undef PELKOSSL_SLOT
#define PELKOSSL_VARSLOT(R, N, AT, AN) T##N* i##N;
  DYNAMIC_VARIABLE(PELKOSSL_VARSLOT)
#undef PELKOSSL_VARSLOT
};

extern PELKOSSL pelkossl;

// 0 when loaded (or already loaded), 1 when no usable companion was found.
int LoadPelkossl();
int UnloadPelkossl();
inline int UnloadPelkos() { return UnloadPelkossl(); }
int PelkosslLoaded();

#define PELKOSSL_TAL(R, N, AT, AN) R TAL_##N AT;
DYNAMIC_VARIABLE(PELKOSSL_TAL)
#undef PELKOSSL_TAL

// Memory that GnuTLS hands over goes back through its own allocator.
#define FREEGNUTLS(p)     \
  do {                    \
    if (p) {              \
      TAL_gnutls_free(p); \
      (p) = NULL;         \
    }                     \
  } while (0)
#define FREEGNUTLSDATUM(datum) FREEGNUTLS((datum).data)
