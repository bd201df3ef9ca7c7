// The demo: an end-to-end tour of the library on loopback, told as a list
// of scenes. Each scene is one function in a host/demo*.cpp file that
// registers itself with PELKO_DEMO_SCENE, so a new scene touches no other.
#pragma once

#include <string>
#include <vector>

#include "host/library.h"

namespace demo {

// What a scene works with: the loaded library, a root started for the tour,
// and the terminal.
class Stage {
 public:
  Stage(host::Library& lib, bool color) : lib(lib), color_(color) {}

  host::Library& lib;
  const std::string root = "DEMO";

  void Heading(int number, const std::string& title);
  // A line of narration.
  void Say(const std::string& text);
  // A label and its value, aligned.
  void Fact(const std::string& label, const std::string& value);
  // Makes a call through Call and shows it with its result.
  host::CallResult Show(const std::string& root, const std::string& verb, const host::Value& right);
  host::CallResult Show(const std::string& verb, const host::Value& right) { return Show(root, verb, right); }
  // A dyadic call, shown as the session writes it: left value, verb, right.
  host::CallResult ShowDyadic(const std::string& root, const std::string& verb, const host::Value& left,
                              const host::Value& right);
  // The wait verb on a name, for two seconds at most, shown.
  host::CallResult Wait(const std::string& root, const std::string& name);
  void ShowResult(const host::CallResult& r);
  // Notes an expectation; a scene fails if any of its checks does.
  bool Expect(bool ok, const std::string& what);

  bool failed = false;

 private:
  std::string Paint(const char* code, const std::string& text) const;

  bool color_;
};

// Whether a wait gave that event.
bool IsEvent(const host::CallResult& r, const char* event);

struct Scene {
  int order;          // scenes run in ascending order
  const char* name;   // for `pelkohost demo NAME`
  const char* title;
  void (*run)(Stage&);
};

int RegisterScene(const Scene& scene);
const std::vector<Scene>& Scenes();

// Runs the named scenes, or all of them; 0 when every check held.
int Run(host::Library& lib, const std::vector<std::string>& names);

}  // namespace demo

#define PELKO_DEMO_SCENE(order, name, title, fn) \
  static const int fn##Registered = demo::RegisterScene({order, name, title, fn})
