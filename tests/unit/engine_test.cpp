// Roots and their work threads: start, wake-up, properties, the tree verb,
// closing, and many host threads working on one tree at once.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "aplrpc.h"
#include "orvanenaz.h"
#include "engine_helpers.h"
#include "pelkoerr.h"
#include "rawconnection.h"
#include "root.h"
#include "verbs.h"
#include "work.h"

namespace {

int CountEntries(const char* dir) {
  int n = 0;
  DIR* d = opendir(dir);
  while (readdir(d)) n++;
  closedir(d);
  return n;
}

// Polls until cond holds or about two seconds have passed.
template <typename F>
bool Eventually(F cond) {
  for (int i = 0; i < 400; i++) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return cond();
}

PHIERAKI StartRoot(const char* name) {
  EXPECT_EQ(Init((char*)name, (char*)"/opt/lib/pelko31_64.so"), 0);
  PHIERAKI r = Root(name);
  EXPECT_NE(r, nullptr);
  return r;
}

SI4 Code(PAA r) {
  SI4 c = VAType(r) == VAPntr ? IntOf(Elem(r, 0)) : IntOf(r);
  return c;
}

PAA GetProp(PHIERAKI root, const char* prop) {
  return RunVerb(AGetProp, root, VANested({VAText(""), VAText(prop)}));
}

SI4 SetProp(PHIERAKI root, const char* prop, PAA value) {
  PAA r = RunVerb(ASetProp, root, VANested({VAText(""), VAText(prop), value}));
  SI4 c = Code(r);
  VAFree(r);
  return c;
}

TEST(Root, StartsWithLiveThreadAndWakes) {
  PHIERAKI root = StartRoot("alive");
  PROOT p = RootObj(root);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->Type, TRoot);
  EXPECT_EQ(p->State, SRootInit);
  EXPECT_EQ(p->UseFnsReady, 2);
  EXPECT_EQ(p->pid, getpid());
  EXPECT_EQ(p->pTalThread->Ended, 0u);
  for (int i = 0; i < 100; i++) ASSERT_EQ(p->Dirty(), 0);
  EXPECT_EQ(p->pTalThread->Ended, 0u);  // zero words only wake it

  // Closing with "." ends the thread and frees the name.
  PAA r = RunVerb(AClose, root, VAText("."));
  EXPECT_EQ(Code(r), 0);
  VAFree(r);
  EXPECT_EQ(Root("alive"), nullptr);
}

TEST(Root, Properties) {
  PHIERAKI root = StartRoot("props");
  // A property's value as text, or E and the code of the refusal.
  auto Read = [root](const char* prop) {
    PAA r = GetProp(root, prop);
    SI4 c = Code(r);
    std::string s = c ? "E" + std::to_string(c)
                      : VAType(Elem(r, 1)) == VAC1 ? TextOf(Elem(r, 1)) : std::to_string(IntOf(Elem(r, 1)));
    VAFree(r);
    return s;
  };
  const std::string refused = "E" + std::to_string(ERR_OPTION);
  EXPECT_EQ(Read("Protocol"), "ip");
  EXPECT_EQ(Read("RootCertDir"), refused);  // none until one is set
  struct Case {
    const char* prop;
    PAA value;
    SI4 code;
    const char* read;  // read back under this name
    std::string want;
  } cases[] = {
      {"ReadyStrategy", VAInt(7), 0, "readystrategy", "0"},  // out of range; names without case
      {"ReadyStrategy", VAInt(3), 0, "ReadyStrategy", "3"},
      {"EventMode", VAInt(5), 0, "EventMode", "1"},
      {"EventMode", VAInt(-2), 0, "EventMode", "0"},
      {"Protocol", VAText("IPV6"), 0, "Protocol", "ipv6"},
      {"Protocol", VAText("ipx"), ERR_OPTION, "Protocol", "ipv6"},
      {"RootCertDir", VAText("/etc/ssl/certs"), 0, "RootCertDir", "/etc/ssl/certs"},
      {"NoSuchProperty", VAInt(1), ERR_OPTION, "NoSuchProperty", refused},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(SetProp(root, c.prop, c.value), c.code) << c.prop;
    EXPECT_EQ(Read(c.read), c.want) << c.prop;
  }

  PAA r = GetProp(root, "PropList");
  ASSERT_EQ(Code(r), 0);
  PAA list = Elem(r, 1);
  const char* expected[] = {"DecodeCert",    "HttpDate",    "PropList",  "Protocol",
                            "ReadyStrategy", "RootCertDir", "TCPLookup", "EventMode"};
  ASSERT_EQ(VAElems(list), 8u);
  for (UI4 i = 0; i < 8; i++) EXPECT_EQ(TextOf(Elem(list, i)), expected[i]);
  VAFree(r);

  r = GetProp(root, "IPV4Addrs");
  EXPECT_EQ(Code(r), 0);
  VAFree(r);
  r = RunVerb(AGetProp, root, VANested({VAText("nothere"), VAText("PropList")}));
  EXPECT_EQ(Code(r), ERR_OBJECT_NOT_FOUND);
  VAFree(r);

  r = RunVerb(AClose, root, VAText("."));
  VAFree(r);
}

TEST(Root, TreeAndClose) {
  std::atomic<int> deleted{0};
  PHIERAKI root = StartRoot("tree");
  root->AddNew("S", new CountedObj(TServer, &deleted));
  root->AddNew("S.C", new CountedObj(TConnection, &deleted));

  PAA r = RunVerb(ATree, root, VAText(""));
  ASSERT_EQ(Code(r), 0);
  PAA desc = Elem(Elem(r, 1), 0);
  ASSERT_EQ(VAElems(desc), 5u);
  EXPECT_EQ(TextOf(Elem(desc, 0)), "tree");
  EXPECT_EQ(IntOf(Elem(desc, 1)), (SI4)TRoot);
  EXPECT_EQ(IntOf(Elem(desc, 2)), (SI4)SRootInit);
  EXPECT_EQ(TextOf(Elem(desc, 3)).rfind("Pelko version 3.1.1479.0", 0), 0u);
  EXPECT_NE(TextOf(Elem(desc, 3)).find(" built "), std::string::npos);
  PAA kids = Elem(Elem(r, 1), 1);
  ASSERT_EQ(VAElems(kids), 1u);
  PAA srv = Elem(kids, 0);
  EXPECT_EQ(TextOf(Elem(Elem(srv, 0), 0)), "S");
  EXPECT_EQ(VAElems(Elem(srv, 0)), 3u);
  PAA con = Elem(Elem(srv, 1), 0);
  EXPECT_EQ(TextOf(Elem(Elem(con, 0), 0)), "C");
  EXPECT_EQ(VAType(Elem(con, 1)), VAI4);  // no children: an empty vector
  EXPECT_EQ(VAElems(Elem(con, 1)), 0u);
  VAFree(r);

  r = RunVerb(ATree, root, VAText("S.nothere"));
  EXPECT_EQ(Code(r), ERR_OBJECT_NOT_FOUND);
  VAFree(r);
  r = RunVerb(ATree, root, VAText("S.C"));
  EXPECT_EQ(TextOf(Elem(Elem(Elem(r, 1), 0), 0)), "C");
  VAFree(r);

  for (const char* bad : {"", ".x", "nothere"}) {
    r = RunVerb(AClose, root, VAText(bad));
    EXPECT_EQ(Code(r), ERR_OBJECT_NOT_FOUND) << bad;
    VAFree(r);
  }
  // An object moving data can't be closed; once idle it can, and the work
  // thread removes it with its sub-tree.
  PHIERAKI s = root->FindLeaf("S");
  s->pObj->State = SSending;
  r = RunVerb(AClose, root, VAText("S"));
  EXPECT_EQ(Code(r), ERR_OBJECT_ACTIVITY);
  EXPECT_EQ(s->pObj->State, SSending);
  VAFree(r);
  s->pObj->State = SListen;
  {
    // A host thread inside the root may still hold a node it found: the
    // work thread takes the node off the tree, and frees it once no host
    // thread is inside.
    HOSTINSIDE inside(root);
    r = RunVerb(AClose, root, VAText("S"));
    EXPECT_EQ(Code(r), 0);
    VAFree(r);
    EXPECT_TRUE(Eventually([&] { return root->FirstChild() == nullptr; }));
    EXPECT_EQ(deleted, 0);
    EXPECT_EQ(s->pObj->Type, TServer);
    // Its way up is as it was, to the root that a verb would wake.
    EXPECT_EQ(s->Parent(), root);
    EXPECT_EQ(RootObj(s), RootObj(root));
  }
  EXPECT_TRUE(Eventually([&] { return deleted == 2; }));

  r = RunVerb(AClose, root, VAText("."));
  VAFree(r);
}

TEST(Root, DirtyAfterThreadEnded) {
  PHIERAKI root = StartRoot("ended");
  PROOT p = RootObj(root);
  p->Endwork();
  ASSERT_TRUE(Eventually([&] { return p->pTalThread->Ended != 0; }));
  EXPECT_EQ(p->lErrorObj, ERR_WORKTHREADENDED);
  EXPECT_EQ(p->Dirty(), ERR_WORKTHREADENDED);
  EXPECT_EQ(KickStart((char*)"ended"), ERR_WORKTHREADENDED);
  EXPECT_EQ(p->pWork, nullptr);
  // A send whose wake-up fails leaves its buffer with the queued message:
  // freeing it again would be the sender's double free.
  PRAWCONNECTION c = new RAWCONNECTION(64, MRaw);
  c->State = SConnected;
  PHIERAKI h = root->AddNew("late", c);
  ASSERT_NE(h, nullptr);
  char name[32] = "";
  EXPECT_EQ(c->SendBuffer(h, name, new BUFFER(3, (PCH1) "abc"), 0), ERR_WORKTHREADENDED);
  EXPECT_EQ(h->CountChildren(), 1);
  auto t0 = std::chrono::steady_clock::now();
  PAA r = RunVerb(AClose, root, VAText("."));
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
  EXPECT_EQ(Code(r), 0);
  VAFree(r);
}

TEST(Root, HundredRootsLeakNothing) {
  // One root first, so that everything made once per process exists.
  PHIERAKI warm = StartRoot("warm");
  VAFree(RunVerb(AClose, warm, VAText(".")));
  ASSERT_TRUE(Eventually([] { return CountEntries("/proc/self/task") > 0; }));
  int tasks = CountEntries("/proc/self/task");
  int fds = CountEntries("/proc/self/fd");
  for (int i = 0; i < 100; i++) {
    std::string name = "loop" + std::to_string(i % 3);
    PHIERAKI root = StartRoot(name.c_str());
    ASSERT_NE(root, nullptr);
    auto t0 = std::chrono::steady_clock::now();
    PAA r = RunVerb(AClose, root, VAText("."));
    ASSERT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
    ASSERT_EQ(Code(r), 0);
    VAFree(r);
  }
  EXPECT_EQ(CountEntries("/proc/self/fd"), fds);
  EXPECT_TRUE(Eventually([&] { return CountEntries("/proc/self/task") <= tasks; }))
      << CountEntries("/proc/self/task") << " tasks, " << tasks << " before";
}

// Host threads add, find and close their own objects while the work thread
// walks the tree and deletes what was closed. Every object must be deleted
// exactly once, and none may be lost.
TEST(Root, StressHostThreadsAgainstWorkThread) {
  PHIERAKI root = StartRoot("stress");
  std::atomic<int> deleted{0}, created{0}, failures{0};
  const int threads = 4, rounds = 300;
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; t++) {
    pool.emplace_back([&, t] {
      for (int i = 0; i < rounds; i++) {
        std::string name = "T" + std::to_string(t) + "_" + std::to_string(i);
        PHIERAKI h = root->AddNew(name.c_str(), new CountedObj(TConnection, &deleted));
        if (!h) {
          failures++;
          continue;
        }
        created++;
        std::string child = name + ".m";
        if (root->AddNew(child.c_str(), new CountedObj(TMessage, &deleted))) created++;
        if (root->FindLeaf(child.c_str()) == nullptr) failures++;
        if (root->FindLeaf(name.c_str()) != h) failures++;
        // Closing through the verb, as a host would.
        VAFree(RunVerb(AClose, root, VAText(name.c_str())));
        if (i % 7 == 0) Dirty(root);
      }
    });
  }
  for (auto& th : pool) th.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(created, threads * rounds * 2);
  EXPECT_TRUE(Eventually([&] {
    Dirty(root);
    return deleted == created;
  })) << deleted << " of " << created;
  EXPECT_EQ(root->FirstChild(), nullptr);
  VAFree(RunVerb(AClose, root, VAText(".")));
}

}  // namespace
