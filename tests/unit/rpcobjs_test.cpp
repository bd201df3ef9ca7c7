// The object base: parking a host thread and waking it, what the base
// refuses, and the ageing of parking semaphores. Its send buffers are built
// by every raw and file send of the stream tests.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "aplrpc.h"
#include "engine_helpers.h"
#include "pelkoerr.h"
#include "root.h"

namespace {

TEST(RpcObjs, ParkAndWake) {
  ASSERT_EQ(Init((char*)"park", (char*)"/"), 0);
  PHIERAKI root = Root("park");
  PHIERAKI srv = root->AddNew("S", new CountedObj(TServer));
  PHIERAKI con = root->AddNew("S.C", new CountedObj(TConnection));
  PRPCOBJS s = srv->pObj;

  ASSERT_EQ(s->AplWaitInit(root), 0);
  EXPECT_EQ(s->AplWaitInit(root), ERR_SOMEBODY_WAITING);
  EXPECT_EQ(s->AplWait(10), WAIT_TIMEOUT_RC);  // not ERR_TIMEOUT

  // A child made ready wakes the thread parked on its server, once it is
  // parked (bounded).
  auto parkedOn = [](PTHREADSEM sem) {
    for (int i = 0; i < 5000 && sem->Waiting == 0; i++) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  std::thread waker([&] {
    parkedOn(s->pWaiting);
    con->pObj->Ready4Apl(con);
  });
  EXPECT_EQ(s->AplWait(5000), 0);
  waker.join();
  EXPECT_GT(con->pObj->timeReady, con->pObj->timeCreate);
  PTHREADSEM sem = s->pWaiting;
  EXPECT_EQ(s->AplWaitClear(), 0);
  EXPECT_EQ(s->pWaiting, nullptr);
  EXPECT_EQ(sem->ThreadId, 0u);  // back in the list, free

  // The free semaphore is taken again; the list doesn't grow.
  ASSERT_EQ(con->pObj->AplWaitInit(root), 0);
  EXPECT_EQ(con->pObj->pWaiting.load(), sem);
  // Deleting the object wakes whoever is parked on it.
  std::thread parked([&] { EXPECT_EQ(sem->WaitSem(5000), SemReleased); });
  parkedOn(sem);
  srv->LockWrite();
  delete con;
  srv->ReleaseWrite();
  parked.join();
  EXPECT_EQ(sem->ThreadId, 0u);
  EXPECT_EQ(RootObj(root)->pThreadList->Count(), 1);

  // With no one parked, nothing is woken and the count is 0.
  PHIERAKI c2 = root->AddNew("S.D", new CountedObj(TConnection));
  EXPECT_EQ(c2->pObj->Ready4Apl(c2), 0);
  EXPECT_EQ(RPCUnload(root), 0);
}

// The base's events as the host hears them ("Error", "Closed" under
// EventMode 1, "Sent", "WSUpgrade") are checked through the exports by the
// command and WebSocket tests; here what follows "Sent", and what the base
// refuses.
TEST(RpcObjs, WaitReturnsOfTheBase) {
  ASSERT_EQ(Init((char*)"events", (char*)"/"), 0);
  PHIERAKI root = Root("events");
  root->AddNew("A", new CountedObj(TConnection));
  PHIERAKI b = root->AddNew("A.B", new CountedObj(TCommand));
  PRPCOBJS o = b->pObj;
  char name[200], event[32];
  OBJSTATE next = SDoNotChange;
  PUI4 z = nullptr;

  o->LastState = SSent;
  ASSERT_EQ(o->GetWaitReturns(b, name, event, &next, &z), 0);
  EXPECT_STREQ(event, "Sent");
  EXPECT_EQ(next, SProcessing);  // command mode keeps it
  free(z);
  o->Mode = MRaw;
  o->GetWaitReturns(b, name, event, &next, &z);
  EXPECT_EQ(next, SFinished);
  free(z);

  o->LastState = SAPL;
  EXPECT_EQ(o->GetWaitReturns(b, name, event, &next, &z), ERR_INVALID_OBJECT);
  EXPECT_EQ(z, nullptr);

  PAA list = nullptr;
  ASSERT_EQ(o->GetRPCProp((PCH1) "proplist", nullptr, &list), 0);
  EXPECT_EQ(TextOf(Elem(list, 0)), "PropList");
  VAFree(list);
  EXPECT_EQ(o->GetRPCProp((PCH1) "Other", nullptr, &list), ERR_OPTION);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(o->SendZ(b, (PCH10) "", nullptr, 0, 0), ERR_INVALID_OBJECT);
  EXPECT_EQ(RPCUnload(root), 0);
}

TEST(ThreadSem, AgeingKeepsTheHead) {
  PTHREADSEM head = new THREADSEM(nullptr, 0);
  head = new THREADSEM(head, 0);
  head = new THREADSEM(head, 0);
  EXPECT_EQ(head->Count(), 3);
  PTHREADSEM taken = head->FindFree();
  EXPECT_EQ(taken, head);
  EXPECT_NE(taken->ThreadId, 0u);
  // The others are old and free, the head is in use: both others go.
  head->pNext->LastUsed -= 301;
  head->pNext->pNext->LastUsed -= 301;
  head->LastUsed -= 301;
  EXPECT_EQ(head->RemoveOld(), head);
  EXPECT_EQ(head->Count(), 1);
  head->Return();
  EXPECT_EQ(head->FindFree(), head);
  head->Remove();
  delete head;
}

}  // namespace
