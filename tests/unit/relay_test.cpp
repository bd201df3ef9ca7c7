// The relay on a tree of its own: one child per direction, the pieces it
// queues on the target and their names, and the read selection. Refused
// targets and a target that went are tested through the exports.
#include <gtest/gtest.h>

#include <string>

#include "command.h"
#include "engine_helpers.h"
#include "pelkoerr.h"
#include "relay.h"
#include "work.h"

namespace {

PRELAY RelayUnder(PHIERAKI h) {
  PHIERAKI r = h->FindLeaf("RELAY");
  return r ? (PRELAY)(PRPCOBJS)r->pObj : nullptr;
}

std::string Piece(PHIERAKI target, const char* name) {
  PHIERAKI h = target->FindLeaf(name);
  if (!h || !h->pObj || h->pObj->Type != TMessage) return "<none>";
  PMESSAGE m = (PMESSAGE)(PRPCOBJS)h->pObj;
  EXPECT_EQ(m->State, SReadyToSend);
  EXPECT_EQ(m->NextState, SFinished);
  return std::string(m->pBuf->Start(), m->pBuf->TotalSize());
}

TEST(Relay, PiecesAreNamedByTheRunningTotal) {
  HIERAKI top("R", nullptr);
  PHIERAKI a = top.AddNew("A", new CountedObj(TConnection));
  PHIERAKI b = top.AddNew("B", new CountedObj(TClient));
  EXPECT_EQ(SetRelay(&top, (PCH10) "A", (PCH10) "B", 10, 0), 0);
  // A second relay is no error, and each side still holds one.
  EXPECT_EQ(SetRelay(&top, (PCH10) "A", (PCH10) "B", 10, 0), 0);
  EXPECT_EQ(a->CountChildren(), 1);
  EXPECT_EQ(b->CountChildren(), 1);
  PRELAY r = RelayUnder(a);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(std::string(r->pToName), "B");
  EXPECT_EQ(r->State, SReadyToRecv);

  r->pBuf->Append((PCH1) "0123456789", 10);
  EXPECT_EQ(r->RelayBuf(nullptr), 0);
  EXPECT_EQ(Piece(b, "Bytes0000000010"), "0123456789");
  EXPECT_EQ(r->pBuf->Offset, 0u);
  // What the connection held before goes first.
  BUFFER held(8);
  held.Append((PCH1) "abc", 3);
  r->pBuf->Append((PCH1) "de", 2);
  EXPECT_EQ(r->RelayBuf(&held), 0);
  EXPECT_EQ(Piece(b, "Bytes0000000013"), "abc");
  EXPECT_EQ(Piece(b, "Bytes0000000015"), "de");
  EXPECT_EQ(r->Bytes, 15u);
  EXPECT_EQ(r->Blocks, 0u);
  // Nothing read is no piece.
  EXPECT_EQ(r->RelayBuf(nullptr), 0);
  EXPECT_EQ(b->CountChildren(), 4);
}

TEST(Relay, ReadSelection) {
  HIERAKI top("R", nullptr);
  PHIERAKI a = top.AddNew("A", new CountedObj(TConnection));
  top.AddNew("B", new CountedObj(TConnection));
  EXPECT_EQ(SetRelay(&top, (PCH10) "A", (PCH10) "B", 16, 1), 0);
  EXPECT_EQ(RelayUnder(top.FindLeaf("B")), nullptr);  // one way only
  PHIERAKI h = a->FindLeaf("RELAY");
  PRELAY r = (PRELAY)(PRPCOBJS)h->pObj;
  FDSETS fds = {};
  HIERAKI other("other", nullptr);
  // Waiting, it yields to a child already reading.
  fds.phRead = &other;
  fds.pItem = h;
  r->Check(&fds);
  EXPECT_EQ(fds.phRead, &other);
  fds.phRead = nullptr;
  r->Check(&fds);
  EXPECT_EQ(fds.phRead, h);
  EXPECT_EQ(fds.pRead, r->pBuf);
  // Reading, it takes the selection.
  r->State = SReceiving;
  fds.phRead = &other;
  r->Check(&fds);
  EXPECT_EQ(fds.phRead, h);
  EXPECT_EQ(r->Execute(&fds), 0);
}

}  // namespace
