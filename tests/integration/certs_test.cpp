// Certificates as arrays: files read by ACerts, bytes decoded into their
// parts and compared with what certtool prints for the same file, and bytes
// that are no certificate. A live connection's certificates, its own and its
// peer's, are checked against the real peers in tls_peers_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

#include "servepeer.h"
#include "streampeer.h"
#include "tlscerts.h"

namespace {

using namespace streamtest;
using servetest::Shell;
using tlstest::Certs;


// The value behind "label: " in certtool's report.
std::string Field(const std::string& report, const std::string& label) {
  size_t a = report.find(label + ": ");
  if (a == std::string::npos) return "";
  a += label.size() + 2;
  return report.substr(a, report.find('\n', a) - a);
}

// The parts of a distinguished name, whatever their order.
std::set<std::string> Rdns(const std::string& dn) {
  std::set<std::string> parts;
  std::stringstream s(dn);
  for (std::string p; std::getline(s, p, ',');) parts.insert(p);
  return parts;
}

host::CallResult Certs_(const std::string& root, std::vector<Value> opts) {
  return Lib().Call(root, "ACerts", Value::Nested(opts));
}

TEST(CertDecode, PartsMatchWhatCerttoolPrints) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  setenv("TZ", "UTC", 1);
  tzset();
  Roots r("CertDecode");
  std::string report = Shell("certtool -i --infile '" + Certs::Get().File("serial.pem") + "'");
  Value der = Certs::Get().Bytes("serial.der");
  host::CallResult v = Certs_(r.root, {Opt("Type", Value::Text("Decode")), Opt("Source", der), Opt("Details", Value::Int(1))});
  ASSERT_EQ(Code(v), 0) << v.result.Format();
  const Value& info = v.result[1][1];
  EXPECT_EQ(v.result[1][0].count(), der.count());  // the bytes come back as characters
  EXPECT_EQ(info[0].intAt(0), std::stoi(Field(report, "Version")));
  EXPECT_EQ(Field(report, "Serial Number (hex)"), "00ff");
  EXPECT_EQ(info[1].text(), "255");
  EXPECT_EQ(Rdns(info[3].text()), Rdns(Field(report, "Issuer")));
  EXPECT_EQ(Rdns(info[5].text()), Rdns(Field(report, "Subject")));
  // certtool writes the zone before the year; the array keeps the newline.
  std::string from = info[4][0].text();
  EXPECT_EQ(from.substr(0, 20) + "UTC " + from.substr(20, 4) + "\n", Field(report, "Not Before") + "\n");
  EXPECT_EQ(info[6][0].text(), "EC/ECDSA");
  EXPECT_EQ(info[6][3].count(), 520u);  // an uncompressed P-256 point, in bits
  EXPECT_EQ(info[9].shape(), (host::Shape{0, 3}));

  // Without details: raw values.
  v = Certs_(r.root, {Opt("Type", Value::Text("Decode")), Opt("Source", der)});
  ASSERT_EQ(Code(v), 0);
  EXPECT_EQ(v.result[1][1][1], Value::Int8s({0, -1}));
  EXPECT_EQ(v.result[1][1][4][0].count(), 7u);
  // The signature's OID, as the ASN.1 read gives it: with its terminator.
  EXPECT_EQ(v.result[1][1][2][0].text(), std::string("1.2.840.10045.4.3.2") + '\0');

  // The serial number 00 FF made into the single byte FF, which is -1: the
  // certificate and its signed part each lose a byte of length (its
  // signature no longer holds, which decoding doesn't look at).
  std::vector<int8_t> bytes;
  for (int64_t b : der.ints()) bytes.push_back((int8_t)b);
  const std::vector<int8_t> serial = {0x02, 0x02, 0x00, -1};
  auto at = std::search(bytes.begin(), bytes.end(), serial.begin(), serial.end());
  ASSERT_TRUE(bytes[1] == (int8_t)0x82 && bytes[5] == (int8_t)0x82 && at != bytes.end());
  for (size_t len : {2u, 6u}) {
    int n = ((uint8_t)bytes[len] << 8 | (uint8_t)bytes[len + 1]) - 1;
    bytes[len] = (int8_t)(n >> 8);
    bytes[len + 1] = (int8_t)n;
  }
  at[1] = 0x01;
  bytes.erase(at + 2);
  for (int details : {1, 0}) {
    v = Certs_(r.root, {Opt("Type", Value::Text("Decode")), Opt("Source", Value::Int8s(bytes)), Opt("Details", Value::Int(details))});
    ASSERT_EQ(Code(v), 0) << v.result.Format();
    EXPECT_EQ(v.result[1][1][1], details ? Value::Text("-1") : Value::Int8s({-1}));
  }

  // The root property decodes the same bytes the same way.
  host::CallResult p = Lib().Call(r.root, "AGetProp", Value::Nested({Value::Text(""), Value::Text("DecodeCert"), der, Value::Int(1)}));
  ASSERT_EQ(Code(p), 0) << p.result.Format();
  EXPECT_EQ(p.result[1][1][1].text(), "255");
}

TEST(CertDecode, FilesGiveOneByteVectorPerCertificate) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  Roots r("CertFiles");
  const Certs& c = Certs::Get();
  std::string three = c.File("three.pem");
  std::ofstream(three) << std::ifstream(c.File("srv.pem")).rdbuf();
  std::ofstream(three, std::ios::app) << std::ifstream(c.File("ca.pem")).rdbuf();
  std::ofstream(three, std::ios::app) << std::ifstream(c.File("client.pem")).rdbuf();
  host::CallResult v = Certs_(r.root, {Opt("Type", Value::Text("DER")), Opt("Source", Value::Text(three))});
  ASSERT_EQ(Code(v), 0);
  ASSERT_EQ(v.result[1].count(), 3u);
  EXPECT_EQ(v.result[1][0], c.Bytes("srv.der"));
  EXPECT_EQ(v.result[1][1], c.Bytes("ca.der"));
  // A DER file gives its one certificate, the same bytes as from PEM.
  v = Certs_(r.root, {Opt("Type", Value::Text("DER")), Opt("Source", Value::Text(c.File("srv.der")))});
  ASSERT_EQ(Code(v), 0);
  ASSERT_EQ(v.result[1].count(), 1u);
  EXPECT_EQ(v.result[1][0], c.Bytes("srv.der"));
  // A missing file is no certificates; no source, or a type without a back
  // end, is a code.
  v = Certs_(r.root, {Opt("Type", Value::Text("DER")), Opt("Source", Value::Text("/no/such.pem"))});
  EXPECT_EQ(Code(v), 0);
  EXPECT_EQ(v.result[1].count(), 0u);
  EXPECT_EQ(Code(Certs_(r.root, {Opt("Type", Value::Text("DER"))})), 1037);     // ERR_OPTION
  EXPECT_EQ(Code(Certs_(r.root, {Opt("Type", Value::Text("Folder"))})), 1005);  // ERR_NONCE
}

// DER: the size of an element's header at `at`, its content's length in *len.
size_t DerHeader(const std::string& d, size_t at, size_t* len) {
  unsigned char b = (unsigned char)d[at + 1];
  if (b < 0x80) {
    *len = b;
    return 2;
  }
  *len = 0;
  for (int i = 0; i < (b & 0x7f); i++) *len = *len << 8 | (unsigned char)d[at + 2 + i];
  return 2 + (b & 0x7f);
}

std::string DerLength(size_t n) {
  if (n < 0x80) return std::string(1, (char)n);
  if (n < 0x100) return std::string("\x81") + (char)n;
  return std::string("\x82") + (char)(n >> 8) + (char)(n & 0xff);
}

// The certificate with an issuer unique id of `id` behind its public key.
// The signature no longer fits it, which decoding doesn't look at.
std::string WithIssuerUniqueId(const std::string& cert, const std::string& id) {
  size_t certLen, tbsLen;
  size_t tbsAt = DerHeader(cert, 0, &certLen);
  size_t first = tbsAt + DerHeader(cert, tbsAt, &tbsLen), p = first;
  for (int k = 0; k < 7; k++) {  // version, serial, algorithm, issuer, validity, subject, key
    size_t l, h = DerHeader(cert, p, &l);
    p += h + l;
  }
  std::string tbs = cert.substr(first, p - first) + "\x81" + DerLength(id.size() + 1) + '\0' + id +
                    cert.substr(p, first + tbsLen - p);
  std::string body = "\x30" + DerLength(tbs.size()) + tbs + cert.substr(first + tbsLen);
  return "\x30" + DerLength(body.size()) + body;
}

TEST(CertDecode, AUniqueIdIsItsBytesNotItsBits) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  Roots r("CertUid");
  std::string der = Certs::Get().Read("serial.der");
  // 100 bytes are 800 bits; read as a length in bytes they overran the
  // room of the read (found by cert_fuzz).
  std::string spliced = WithIssuerUniqueId(der, std::string(100, 'u'));
  std::vector<int8_t> bytes(spliced.begin(), spliced.end());
  for (int details = 0; details < 2; details++) {
    host::CallResult v = Certs_(r.root, {Opt("Type", Value::Text("Decode")), Opt("Source", Value::Int8s(bytes)),
                                         Opt("Details", Value::Int(details))});
    ASSERT_EQ(Code(v), 0) << v.result.Format();
    EXPECT_EQ(v.result[1][1][7].count(), 100u);
    EXPECT_EQ(v.result[1][1][8].count(), 0u);
  }
}

TEST(CertDecode, BytesThatAreNoCertificateGiveACode) {
  if (!Certs::Get().ok()) GTEST_SKIP() << "certtool made no certificates";
  Roots r("CertBad");
  std::string der = Certs::Get().Read("srv.der");
  std::vector<int8_t> good(der.begin(), der.end());
  std::vector<std::vector<int8_t>> bad = {
      {},
      std::vector<int8_t>(good.begin(), good.begin() + good.size() / 2),  // truncated
      {0x30, (int8_t)0x84, 0x7f, (int8_t)0xff, (int8_t)0xff, (int8_t)0xff, 0x02, 0x01},  // a length past the end
  };
  std::vector<int8_t> flipped = good;
  flipped[1] ^= 0x7f;  // a wrong outer length
  bad.push_back(flipped);
  srand(7);
  for (int i = 0; i < 20; i++) {
    std::vector<int8_t> noise((size_t)(1 + rand() % 600));
    for (int8_t& b : noise) b = (int8_t)rand();
    bad.push_back(noise);
  }
  for (const auto& bytes : bad) {
    host::CallResult v = Certs_(r.root, {Opt("Type", Value::Text("Decode")), Opt("Source", Value::Int8s(bytes))});
    EXPECT_EQ(Code(v), 1207) << bytes.size();
  }
}

}  // namespace
