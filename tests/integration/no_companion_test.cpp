// Without the TLS companion the library still does all its plain work, and
// says ERR_NO_SSL_SUPPORT where TLS or compression is asked for.
#include <gtest/gtest.h>

#include <cstdlib>

#include "cmdpeer.h"

namespace {

using cmdtest::Code;
using cmdtest::Opt;
using host::Value;
using pelkotest::Lib;

// Runs in a fresh copy of the test program, where the library is opened
// for the first time with the companion out of reach. Gives the exit code:
// 0 when every check held, else the number of the first that failed.
int PlainWorkWithoutCompanion() {
  setenv("PELKOSSL_LIBRARY", "/nonexistent/libpelko31ssl64.so", 1);
  unsigned char in[4] = {1, 2, 3, 4}, out[64];
  unsigned inLength = sizeof in, outLength = sizeof out;
  void* ctx = nullptr;
  if (Lib().raw().cflate(2, &ctx, in, &inLength, out, &outLength, 6) != 1205) return 1;
  pelkotest::Root srv("NOSSLS");
  pelkotest::Root clt("NOSSLC");
  int port = cmdtest::Serve(srv, "S");
  if (port <= 0) return 2;
  if (Code(cmdtest::Connect(clt, "C", port)) != 0) return 3;
  if (Code(cmdtest::Send(clt, "C.ping", Value::Ints({1, 2, 3}))) != 0) return 4;
  cmdtest::Event e = cmdtest::Wait(srv, "", 5000);
  if (e.event == "Connect") e = cmdtest::Wait(srv, "", 5000);  // the server hears the client first
  if (e.rc != 0 || e.event != "Receive" || !(e.data == Value::Ints({1, 2, 3}))) return 5;
  if (cmdtest::Respond(srv, e.name, Value::Text("pong"), 1) != 0) return 6;
  e = cmdtest::Wait(clt, "C", 5000);
  if (e.rc != 0 || e.event != "Receive" || e.data.text() != "pong") return 7;
  // Asking for TLS on a client or a server is answered with the code.
  host::CallResult r = Lib().Call(clt, "AClt", Value::Nested({Opt("Name", Value::Text("T")),
                                                                Opt("Address", Value::Text("127.0.0.1")),
                                                                Opt("Port", Value::Text(std::to_string(port))),
                                                                Opt("PublicCertFile", Value::Text("/tmp/c.pem"))}));
  if (Code(r) != 1205) return 8;
  r = Lib().Call(srv, "ASrv", Value::Nested({Opt("Name", Value::Text("TS")), Opt("Port", Value::Text("0")),
                                             Opt("PublicCertFile", Value::Text("/tmp/c.pem"))}));
  if (Code(r) != 1205) return 9;
  return 0;
}

TEST(NoCompanionDeathTest, PlainServersAndClientsWork) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(PlainWorkWithoutCompanion()), ::testing::ExitedWithCode(0), "");
}

}  // namespace
