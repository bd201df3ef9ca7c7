// The name tree: lookup rules, ring order, deletion and the magic check.
#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

#include "engine_helpers.h"
#include "hieraki.h"

namespace {

static PHIERAKI Collect(PHIERAKI h, void* v) {
  ((std::vector<std::string>*)v)->push_back(NodeName(h));
  return nullptr;
}

std::vector<std::string> Children(PHIERAKI h) {
  std::vector<std::string> v;
  h->LoopSub(Collect, &v);
  return v;
}

TEST(Hieraki, NamesDotsAndLengths) {
  HIERAKI* root = new HIERAKI("R", nullptr);
  std::string n32(32, 'x'), n33(33, 'y');
  PHIERAKI a = root->AddNew("A", nullptr);
  ASSERT_NE(a, nullptr);
  PHIERAKI b = root->AddNew("A.B", nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->Parent(), a);

  EXPECT_EQ(root->FindLeaf(""), root);
  EXPECT_EQ(root->FindLeaf("A."), a);
  EXPECT_EQ(root->FindLeaf(".A"), root);  // a leading dot stays at the start
  EXPECT_EQ(root->FindLeaf("A.B"), b);
  EXPECT_EQ(root->FindLeaf("A.B."), b);
  EXPECT_EQ(root->FindLeaf("A.C"), nullptr);
  EXPECT_EQ(root->FindLeaf("C.B"), nullptr);
  EXPECT_EQ(root->FindParent("A.B.X"), b);
  EXPECT_EQ(root->FindParent("Q.X"), nullptr);
  EXPECT_EQ(root->FindParent("noDot"), root);

  // 32 characters fill Name without a terminator and are still found, as
  // a last piece and as a middle one.
  PHIERAKI p32 = root->AddNew(n32.c_str(), nullptr);
  ASSERT_NE(p32, nullptr);
  EXPECT_EQ(root->FindLeaf(n32.c_str()), p32);
  EXPECT_EQ(root->FindLeaf((n32 + ".").c_str()), p32);
  PHIERAKI under = root->AddNew((n32 + ".k").c_str(), nullptr);
  EXPECT_EQ(root->FindLeaf((n32 + ".k").c_str()), under);
  EXPECT_EQ(root->AddNew(n32.c_str(), nullptr), nullptr);  // name exists

  // 33 characters: FindLeaf refuses, AddNew cuts to 32.
  PHIERAKI p33 = root->AddNew(n33.c_str(), nullptr);
  ASSERT_NE(p33, nullptr);
  EXPECT_EQ(NodeName(p33), std::string(32, 'y'));
  EXPECT_EQ(root->FindLeaf(n33.c_str()), nullptr);
  EXPECT_EQ(root->FindLeaf(std::string(32, 'y').c_str()), p33);

  EXPECT_EQ(root->AddNew("A", nullptr), nullptr);       // clash
  EXPECT_EQ(root->AddNew("A.", nullptr), nullptr);      // empty last part
  EXPECT_EQ(root->AddNew("Z.B", nullptr), nullptr);     // no parent

  char buf[200];
  EXPECT_EQ(b->FullName(buf, 199), 3);
  EXPECT_STREQ(buf, "A.B");
  EXPECT_EQ(root->FullName(buf, 199), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(b->FullName(nullptr, 199), -5);  // minus length minus 2
  EXPECT_EQ(b->FullName(buf, 2), -3);        // too small: minus the length
  EXPECT_EQ(under->FullName(buf, 199), 34);
  EXPECT_EQ(std::string(buf), n32 + ".k");
  delete root;
}

TEST(Hieraki, RingOrderPopAndRemove) {
  HIERAKI* root = new HIERAKI("R", nullptr);
  EXPECT_EQ(root->CountChildren(), 0);
  EXPECT_EQ(root->FirstChild(), nullptr);
  for (const char* n : {"a", "b", "c"}) root->AddNew(n, nullptr);
  EXPECT_EQ(Children(root), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(root->CountChildren(), 3);
  EXPECT_EQ(NodeName(root->pSub), "c");  // the tail is visited last

  // SetSub makes b the tail, so the walk starts after it.
  root->SetSub(root->FindLeaf("b"));
  EXPECT_EQ(Children(root), (std::vector<std::string>{"c", "a", "b"}));

  PHIERAKI c = root->PopChild();
  EXPECT_EQ(NodeName(c), "c");
  EXPECT_EQ(c->pNext, c);
  EXPECT_EQ(c->pParent, nullptr);
  delete c;
  delete root->PopChild();
  delete root->PopChild();
  EXPECT_EQ(root->pSub, nullptr);
  EXPECT_EQ(root->PopChild(), nullptr);
  EXPECT_EQ(root->LoopSub(Collect, nullptr), nullptr);

  // Free rings: Add splices, Remove unlinks and tells what to hold.
  PHIERAKI x = new HIERAKI("x", nullptr), y = new HIERAKI("y", nullptr);
  PHIERAKI ring = HIERAKI::Add(nullptr, x);
  EXPECT_EQ(ring, x);
  ring = HIERAKI::Add(ring, y);
  EXPECT_EQ(HIERAKI::Count(ring), 2);
  EXPECT_EQ(HIERAKI::Count(nullptr), 0);
  EXPECT_EQ(ring->Find("x"), x);
  ring = ring->Remove(y);
  EXPECT_EQ(ring, x);
  EXPECT_EQ(HIERAKI::Count(ring), 1);
  EXPECT_EQ(ring->Remove(x), nullptr);
  delete x;
  delete y;
  delete root;
}

TEST(Hieraki, DeletionTakesSubtreeAndCleansUp) {
  std::atomic<int> deleted{0}, cleaned{0};
  HIERAKI* root = new HIERAKI("R", new CountedObj(TRoot, &deleted));
  PHIERAKI srv = root->AddNew("S", new CountedObj(TServer, &deleted, &cleaned));
  PHIERAKI con = root->AddNew("S.C", new CountedObj(TConnection, &deleted));
  PHIERAKI cmd = root->AddNew("S.C.M", new CountedObj(TCommand, &deleted));
  root->AddNew("S.D", new CountedObj(TConnection, &deleted));
  ASSERT_TRUE(srv && con && cmd);
  EXPECT_EQ(root->FindObj(cmd->pObj), cmd);
  EXPECT_EQ(root->Findptr(cmd), cmd);

  // A level with a count of 0 calls nothing.
  cmd->CleanUpLevel = TServer;
  srv->LockWrite();
  delete cmd;
  srv->ReleaseWrite();
  EXPECT_EQ(cleaned, 0);
  EXPECT_EQ(deleted, 1);

  // With a count, the climb finds the server and it is told.
  con->CleanUpLevel = TServer;
  con->CleanUpCount = 1;
  srv->LockWrite();
  delete con;
  srv->ReleaseWrite();
  EXPECT_EQ(cleaned, 1);
  EXPECT_EQ(deleted, 2);
  EXPECT_EQ(Children(srv), (std::vector<std::string>{"D"}));

  delete root;
  EXPECT_EQ(deleted, 5);
}

TEST(HierakiDeathTest, WalkOverDeadNodeStops) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A node destroyed in place keeps its memory, marked dead; a ring that
  // still leads to it must stop the process at the check.
  alignas(HIERAKI) static unsigned char store[sizeof(HIERAKI)];
  EXPECT_DEATH(
      {
        HIERAKI* parent = new HIERAKI("P", nullptr);
        PHIERAKI a = parent->AddNew("a", nullptr);
        HIERAKI* dead = new (store) HIERAKI("dead", nullptr);
        dead->~HIERAKI();
        a->pNext = dead;  // the ring now runs over the dead node
        parent->LoopSub(Collect, nullptr);
      },
      "Talvera0");
  EXPECT_DEATH(
      {
        HIERAKI* parent = new HIERAKI("P", nullptr);
        PHIERAKI a = parent->AddNew("a", nullptr);
        memcpy(a->Magic, "scribble", 9);
        parent->FindLeaf("a");
      },
      "Talvera0");
}

TEST(Ring, FifoAndRemove) {
  HIERAKI a("a", nullptr), b("b", nullptr), c("c", nullptr);
  PRING held = new RING(&a);
  held = held->Push(&b);
  held = held->Push(&c);
  held = held->Push(&b);
  EXPECT_EQ(held->Pop(&held), &a);  // oldest first
  held = held->Remove(&b);          // both entries for b go
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(held->ph, &c);
  EXPECT_EQ(held->pNext, held);
  EXPECT_EQ(held->Pop(&held), &c);
  EXPECT_EQ(held, nullptr);

  held = new RING(&a);
  EXPECT_EQ(held->Remove(&a), nullptr);
}

}  // namespace
