// The data objects of a connection on their own: the IPMSG header bytes,
// which child reads and writes in a round, and what a wait hands over.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "command.h"
#include "orvanenaz.h"
#include "pelkoerr.h"
#include "work.h"

namespace {

TEST(CommandObjects, IpmsgHeaderBytes) {
  char data[3] = {'a', 'b', 'c'};
  PBUFFER b = IPmsg(IPMMessage, (PCH1) "n234567890123456789012345678901234", (PCH1) "Progress00000001",
                    (PCH1) "", data, 3);
  ASSERT_NE(b, nullptr);
  std::string h(b->Start(), b->TotalSize());
  EXPECT_EQ(b->SizeProcessed(), 0u);  // rewound, ready to send
  ASSERT_EQ(h.size(), 118u);
  EXPECT_EQ(GetBE32(&h[0]), 118u);
  // The header fields are checked on the wire by the command-mode tests.
  EXPECT_EQ(h.substr(115), "abc");
  delete b;
  // A total past 4 GB is refused, not wrapped.
  EXPECT_EQ(IPmsg(IPMCommand, (PCH1) "x", (PCH1) "", (PCH1) "", data, 0xFFFFFFFFu - 100), nullptr);
}

TEST(CommandObjects, OneReaderAndOneWriterARound) {
  FDSETS fds = {};
  HIERAKI conn("CON", nullptr);
  PMESSAGE first = new MESSAGE(new BUFFER(4), SReadyToSend);
  PMESSAGE second = new MESSAGE(new BUFFER(4), SReadyToSend);
  PCOMMAND reading = new COMMAND(new BUFFER(8), SReceiving);
  PHIERAKI h1 = conn.AddNew("a", first);
  PHIERAKI h2 = conn.AddNew("b", second);
  PHIERAKI h3 = conn.AddNew("c", reading);
  // Waiting senders: the first in child order writes.
  for (PHIERAKI h : {h1, h2, h3}) {
    fds.pItem = h;
    h->pObj->Check(&fds);
  }
  EXPECT_EQ(fds.phWrite, h1);
  EXPECT_EQ(fds.pWrite, first->pBuf);
  EXPECT_EQ(fds.phRead, h3);
  EXPECT_EQ(fds.pRead, reading->pRecv);
  // A transfer begun takes the selection from a waiting one.
  second->State = SSending;
  fds = {};
  for (PHIERAKI h : {h1, h2}) {
    fds.pItem = h;
    h->pObj->Check(&fds);
  }
  EXPECT_EQ(fds.phWrite, h2);
  // On a closed connection a command in transfer becomes an error; a
  // message stays as it is.
  fds = {};
  fds.fConnectionClosed = 1;
  for (PHIERAKI h : {h1, h3}) {
    fds.pItem = h;
    h->pObj->Check(&fds);
  }
  EXPECT_EQ(reading->State, SError);
  EXPECT_EQ(reading->lErrorObj, ERR_CLOSED);
  EXPECT_EQ(first->State, SReadyToSend);
  // A command made with a state it can't start in owns no buffer.
  COMMAND idle(nullptr, SAPL);
  EXPECT_EQ(idle.State, SNew);
  EXPECT_EQ(idle.GetBuffer(), nullptr);
}

TEST(CommandObjects, WhatAWaitHandsOver) {
  HIERAKI conn("CON7", nullptr);
  // A raw block's bytes reach the host as integers from 0 to 255, and the
  // event is the part's name up to its first digit: the raw and HTTP
  // receive tests. A received payload is handed over as its own block.
  char bytes[3] = {0, (char)200, (char)255};
  char name[200], event[64];
  OBJSTATE next = SFinished;
  PUI4 z = nullptr;
  PBLOCKBUFFER payload = BLOCKBUFFER::TryNew(32);
  PUI4 nine = ScalarZ(9);
  memcpy(payload->Start(), nine, 32);
  free(nine);
  PCH1 block = payload->Start();
  PCOMMAND c = new COMMAND(payload, SReceiving);
  c->LastState = SAPL;
  c->NextState = SProcessing;
  PHIERAKI h = conn.AddNew("q", c);
  ASSERT_EQ(c->GetWaitReturns(h, name, event, &next, &z), 0);
  EXPECT_EQ((PCH1)z, block);
  EXPECT_EQ(next, SProcessing);
  EXPECT_EQ(c->NextState, SDoNotChange);
  free(z);
  // Received bytes go to the host as the packed array would: the same
  // block, byte for byte, for every length's padding and both types.
  char noise[40];
  for (int i = 0; i < 40; i++) noise[i] = (char)(i * 37 + 200);
  for (VATYPES t : {VAI2, VAC1})
    for (UI4 n : {0u, 1u, 3u, 8u, 13u, 40u}) {
      PUI4 packed = PackZ(Data2pAA(noise, n, t)), direct = VectorZ(noise, n, t);
      ASSERT_NE(direct, nullptr);
      ASSERT_EQ(GetBE32(direct), GetBE32(packed));
      EXPECT_EQ(memcmp(packed, direct, GetBE32(packed)), 0) << t << " " << n;
      free(packed);
      free(direct);
    }
  EXPECT_EQ(VectorZ(noise, 3, VAF8), nullptr);
  // Data2pAA serves bytes and text only.
  EXPECT_EQ(Data2pAA(bytes, 3, VAF8), nullptr);
  PAA empty = Data2pAA(bytes, 0, VAI2);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(VAElems(empty), 0u);
  VAFree(empty);
}

TEST(CommandObjects, CheckZAgreesWithUnpackZ) {
  // A nested array, an empty nested one (its prototype record), a text.
  PAA inner = VANewVector(VAPntr, 0);
  VASetpAA(inner, 0, VANewVector(VAI4, 0));
  PAA outer = VANewVector(VAPntr, 2);
  VASetpAA(outer, 0, inner);
  PAA text = VANewVector(VAC1, 3);
  VASetCH1(text, 0, (PCH1) "abc", 3, VABIN);
  VASetpAA(outer, 1, text);
  PUI4 z = PackZ(outer);
  UI4 size = GetBE32(z);
  for (UI4 cut = 0; cut <= size; cut++) {
    PAA p = UnpackZ(z, cut);
    EXPECT_EQ(CheckZ(z, cut), p != nullptr) << cut;
    VAFree(p);
  }
  EXPECT_TRUE(CheckZ(z, size));
  ((PUI1)z)[8 + 9] = 11;  // an element type no host has
  EXPECT_FALSE(CheckZ(z, size));
  free(z);
}

}  // namespace
