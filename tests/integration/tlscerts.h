// Certificates made at run time for the TLS tests, once a process: a test
// CA, a server certificate for localhost and 127.0.0.1, an expired one, one
// for another host name, a client certificate, and one with the serial
// number 255; each in PEM and DER, and the server's key in DER and with its
// certificate in PKCS #12 (password "secret"). Keys never leave the
// temporary directory, which goes at exit.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "host/value.h"

namespace tlstest {

class Certs {
 public:
  static const Certs& Get() {
    static Certs c;
    return c;
  }
  bool ok() const { return ok_; }
  // A file of the set: "ca.pem", "srv.pem", "srv.key", "srv.der", ...
  std::string File(const std::string& name) const { return dir_ + "/" + name; }
  // A file's bytes: Read("srv.der") is the server's certificate in DER.
  std::string Read(const std::string& name) const {
    std::ifstream f(File(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  }
  // The same as a vector of 1-byte integers, as the library takes and
  // gives certificates.
  host::Value Bytes(const std::string& name) const {
    std::string s = Read(name);
    return host::Value::Int8s(std::vector<int8_t>(s.begin(), s.end()));
  }
  // A directory holding only the CA, for "RootCertDir".
  std::string Roots() const { return dir_ + "/roots"; }
  // An empty directory: nothing is trusted but what the system trusts.
  std::string NoRoots() const { return dir_ + "/noroots"; }

 private:
  Certs() {
    char tmpl[] = "/tmp/pelkotlsXXXXXX";
    dir_ = mkdtemp(tmpl) ? tmpl : "";
    ok_ = !dir_.empty() && Make();
  }
  ~Certs() {
    if (!dir_.empty()) Run("rm -rf '" + dir_ + "'");
  }
  static bool Run(const std::string& cmd) { return system((cmd + " >/dev/null 2>&1").c_str()) == 0; }
  bool Template(const std::string& name, const std::string& text) const {
    std::ofstream(File(name + ".tmpl")) << text;
    return Run("certtool --generate-privkey --key-type=ecdsa --no-text --outfile '" + File(name + ".key") + "'");
  }
  bool Sign(const std::string& name, const std::string& text) const {
    return Template(name, text) &&
           Run("certtool --generate-certificate --no-text --load-privkey '" + File(name + ".key") +
               "' --load-ca-certificate '" + File("ca.pem") + "' --load-ca-privkey '" + File("ca.key") +
               "' --template '" + File(name + ".tmpl") + "' --outfile '" + File(name + ".pem") + "'");
  }
  bool Make() {
    // A certificate that starts in the current second is not yet taken.
    char since[64];
    time_t yesterday = time(nullptr) - 86400;
    strftime(since, sizeof since, "activation_date = \"%Y-%m-%d %H:%M:%S\"\n", gmtime(&yesterday));
    const std::string server = "dns_name = \"localhost\"\nip_address = \"127.0.0.1\"\ntls_www_server\n"
                               "signing_key\nencryption_key\n" + std::string(since);
    return Template("ca", "cn = \"Pelko Test CA\"\nca\ncert_signing_key\nexpiration_days = 30\n" + std::string(since)) &&
           Run("certtool --generate-self-signed --no-text --load-privkey '" + File("ca.key") + "' --template '" +
               File("ca.tmpl") + "' --outfile '" + File("ca.pem") + "'") &&
           Sign("srv", "cn = \"localhost\"\n" + server + "expiration_days = 30\n") &&
           Sign("expired", "cn = \"localhost\"\n" + server +
                               "activation_date = \"2020-01-01 00:00:00\"\n"
                               "expiration_date = \"2021-01-01 00:00:00\"\n") &&
           Sign("wrong", "cn = \"other.example\"\ndns_name = \"other.example\"\ntls_www_server\n"
                         "signing_key\nencryption_key\nexpiration_days = 30\n" + std::string(since)) &&
           Sign("serial", "cn = \"Serial Test\"\norganization = \"Pelko\"\nserial = 255\nexpiration_days = 10\n" +
                              std::string(since)) &&
           Sign("client", "cn = \"Pelko Test Client\"\ntls_www_client\nsigning_key\nexpiration_days = 30\n" +
                              std::string(since)) &&
           Run("mkdir -p '" + Roots() + "' '" + NoRoots() + "' && cp '" + File("ca.pem") + "' '" + Roots() + "/'") &&
           Run("cd '" + dir_ + "' && for c in ca srv expired client serial; do certtool --certificate-info --outder "
               "--infile $c.pem --outfile $c.der || exit 1; done && certtool -k --outder --infile srv.key --outfile "
               "srv.key.der && certtool --to-p12 --load-certificate srv.pem --load-privkey srv.key --outder "
               "--password secret --p12-name srv --outfile srv.p12");
  }

  std::string dir_;
  bool ok_ = false;
};

inline host::Value Opt(const char* name, host::Value v) {
  return host::Value::Nested({host::Value::Text(name), std::move(v)});
}

// Option lists joined: a's, then b's.
inline std::vector<host::Value> With(std::vector<host::Value> a, const std::vector<host::Value>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The options that present a certificate and its key, read from files.
inline std::vector<host::Value> Presenting(const std::string& name) {
  const Certs& c = Certs::Get();
  using host::Value;
  return {Opt("PublicCertFile", Value::Nested({Value::Text("DER"), Value::Text(c.File(name + ".pem")), Value::Int(0)})),
          Opt("PrivateKeyFile", Value::Nested({Value::Text("DER"), Value::Text(c.File(name + ".key")), Value::Int(0)}))};
}

// TLS with no certificate of one's own.
inline std::vector<host::Value> Anonymous() {
  using host::Value;
  return {Opt("PublicCertFile", Value::Nested({Value::Text("DER"), Value::Text(""), Value::Int(0)}))};
}

}  // namespace tlstest
