// The command scene: a server and a client in two roots of one process
// exchange a nested array as a named command, with a progress report and
// an answer, as an APL session would drive it.
#include <cstdio>

#include "host/demo.h"

namespace {

using host::Value;

Value Opt(const char* name, Value v) { return Value::Nested({Value::Text(name), std::move(v)}); }

void Commands(demo::Stage& s) {
  const std::string srv = "DEMOSRV", clt = "DEMOCLT";
  s.Say("Two roots stand for two APL sessions: one listens, the other connects.");
  s.Expect(s.lib.Init(srv, s.lib.path()) == 0 && s.lib.Init(clt, s.lib.path()) == 0, "two roots");
  host::CallResult r = s.Show(srv, "ASrv", Value::Nested({Opt("Name", Value::Text("S")),
                                                          Opt("Address", Value::Text("127.0.0.1")),
                                                          Opt("Port", Value::Text("0"))}));
  s.Expect(r.ok() && r.result.isNested(), "a listening server");
  r = s.Show(srv, "AGetProp", Value::Nested({Value::Text("S"), Value::Text("LocalAddr")}));
  if (!s.Expect(r.result.isNested(), "its address")) return;
  int port = (int)r.result[1][3].intAt(0);

  r = s.Show(clt, "AClt", Value::Nested({Opt("Name", Value::Text("C")), Opt("Address", Value::Text("127.0.0.1")),
                                         Opt("Port", Value::Text(std::to_string(port)))}));
  s.Expect(r.result.isNested(), "a connected client");
  r = s.Wait(srv, "");
  s.Expect(demo::IsEvent(r, "Connect"), "the server's Connect event");

  s.Say("The client sends a whole array as the command 'sum'; the server gets it as it was.");
  Value question = Value::Nested({Value::Text("sum"), Value::Ints({1, 2, 3, 4})});
  s.ShowDyadic(clt, "ASendZ", question, Value::Nested({Value::Text("C.sum"), Value::Int(0)}));
  r = s.Wait(srv, "");
  if (!s.Expect(demo::IsEvent(r, "Receive") && r.left && *r.left == question, "the request as sent")) return;
  std::string name = r.result[1].text();

  s.Say("A progress report (flag 0), then the answer (flag 1), under the same name.");
  s.ShowDyadic(srv, "ARespondZ", Value::Text("working"), Value::Nested({Value::Text(name), Value::Int(0)}));
  r = s.Wait(clt, "C");
  s.Expect(demo::IsEvent(r, "Progress"), "the progress report");
  s.ShowDyadic(srv, "ARespondZ", Value::Int(10), Value::Nested({Value::Text(name), Value::Int(1)}));
  r = s.Wait(clt, "C");
  s.Expect(demo::IsEvent(r, "Receive") && r.left && *r.left == Value::Int(10), "the answer 10");

  s.Say("Closing the client: the server hears of it, the client side ends quietly.");
  s.Show(clt, "AClose", Value::Text("C"));
  r = s.Wait(srv, "");
  s.Expect(demo::IsEvent(r, "Error") && r.left && *r.left == Value::Int(1119), "ERR_CLOSED at the server");
  s.lib.Call(clt, "AClose", Value::Text("."));
  s.lib.Call(srv, "AClose", Value::Text("."));
}

}  // namespace

PELKO_DEMO_SCENE(100, "command", "Two sessions exchange arrays as commands", Commands);
