// The stage the demo scenes play on: the scene list, and the terminal
// output that shows each call and its result.
#include "host/demo.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace demo {
namespace {

std::vector<Scene>& List() {
  static std::vector<Scene> scenes;
  return scenes;
}

// A value on one line, as it would be typed: text quoted, items of a
// nested vector in parentheses.
std::string Inline(const host::Value& v) {
  if (v.isNested()) {
    std::string s;
    for (uint64_t i = 0; i < v.count(); i++) s += (i ? " (" : "(") + Inline(v[i]) + ")";
    return v.count() ? s : "⊂⍬";
  }
  if (v.isText()) return "'" + v.text() + "'";
  if (v.count() == 0) return "⍬";
  std::string s = v.Format();
  std::replace(s.begin(), s.end(), '\n', ' ');
  return v.count() == 1 && !v.isScalar() ? "," + s : s;
}

std::string Indent(const std::string& text, const std::string& by) {
  std::istringstream in(text);
  std::string line, out;
  while (std::getline(in, line)) out += by + line + "\n";
  return out.empty() ? by + "\n" : out;
}

}  // namespace

int RegisterScene(const Scene& scene) {
  List().push_back(scene);
  return (int)List().size();
}

const std::vector<Scene>& Scenes() {
  std::stable_sort(List().begin(), List().end(), [](const Scene& a, const Scene& b) { return a.order < b.order; });
  return List();
}

std::string Stage::Paint(const char* code, const std::string& text) const {
  return color_ ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
}

void Stage::Heading(int number, const std::string& title) {
  std::string head = "━━ " + std::to_string(number) + " · " + title + " ";
  size_t width = 0;
  for (unsigned char c : head) width += (c & 0xC0) != 0x80;
  for (; width < 72; width++) head += "━";
  printf("\n%s\n\n", Paint("1;36", head).c_str());
}

void Stage::Say(const std::string& text) { printf("  %s\n", Paint("3", text).c_str()); }

void Stage::Fact(const std::string& label, const std::string& value) {
  printf("  %s %s\n", Paint("2", label + std::string(label.size() < 10 ? 10 - label.size() : 0, ' ')).c_str(),
         value.c_str());
}

host::CallResult Stage::Show(const std::string& rootName, const std::string& verb, const host::Value& right) {
  printf("\n      %s\n", Paint("1", "Call '" + rootName + "' '" + verb + "' " + Inline(right)).c_str());
  host::CallResult r = lib.Call(rootName, verb, right);
  ShowResult(r);
  return r;
}

host::CallResult Stage::ShowDyadic(const std::string& rootName, const std::string& verb, const host::Value& left,
                                   const host::Value& right) {
  printf("\n      %s\n", Paint("1", Inline(left) + " Call '" + rootName + "' '" + verb + "' " + Inline(right)).c_str());
  host::CallResult r = lib.Call(rootName, verb, left, right);
  ShowResult(r);
  return r;
}

host::CallResult Stage::Wait(const std::string& rootName, const std::string& name) {
  return ShowDyadic(rootName, "AWaitZ", host::Value::Int(0), host::Value::Nested({host::Value::Text(name), host::Value::Int(2000)}));
}

bool IsEvent(const host::CallResult& r, const char* event) {
  return r.result.isNested() && r.result.count() == 4 && r.result[2].text() == event;
}

void Stage::ShowResult(const host::CallResult& r) {
  std::string name = host::ErrorName(r.rc);
  printf("  %s %d%s\n", Paint("2", "rc").c_str(), r.rc, name.empty() ? "" : ("  " + Paint("33", name)).c_str());
  std::string body = Indent(r.result.Format(), "  ");
  // An error vector 20 rc, or a verb's one-element code, gets its name.
  std::vector<int64_t> n = r.result.isNested() ? std::vector<int64_t>() : r.result.ints();
  int64_t code = n.size() == 2 && n[0] == 20 ? n[1] : n.size() == 1 ? n[0] : 0;
  if (code && *host::ErrorName((int32_t)code)) {
    body.pop_back();
    body += "      " + Paint("33", host::ErrorName((int32_t)code)) + "\n";
  }
  printf("%s", body.c_str());
  if (r.left) printf("  %s\n%s", Paint("2", "left slot").c_str(), Indent(r.left->Format(), "  ").c_str());
  if (!r.error.empty()) printf("  %s\n", Paint("31", "bad block: " + r.error).c_str());
}

bool Stage::Expect(bool ok, const std::string& what) {
  if (!ok) {
    printf("  %s\n", Paint("1;31", "✗ expected " + what).c_str());
    failed = true;
  }
  return ok;
}

int Run(host::Library& lib, const std::vector<std::string>& names) {
  Stage stage(lib, isatty(STDOUT_FILENO) && !getenv("NO_COLOR"));
  int number = 0, failures = 0;
  // Later scenes work on the tour's root; start it quietly when the scene
  // that shows its start isn't among those chosen.
  if (!names.empty() && std::find(names.begin(), names.end(), "root") == names.end()) lib.Init(stage.root, lib.path());
  for (const Scene& scene : Scenes()) {
    if (!names.empty() && std::find(names.begin(), names.end(), scene.name) == names.end()) continue;
    stage.Heading(++number, scene.title);
    stage.failed = false;
    scene.run(stage);
    failures += stage.failed;
  }
  if (number == 0) {
    fprintf(stderr, "no such scene\n");
    return 2;
  }
  printf("\n  %d scene%s, %s\n\n", number, number == 1 ? "" : "s",
         failures ? (std::to_string(failures) + " with unexpected results").c_str() : "all as expected");
  return failures ? 1 : 0;
}

}  // namespace demo
