// Option lists by position, by name and mixed, and the codes for a
// misspelt name and a missing argument.
#include <gtest/gtest.h>

#include <cstdlib>

#include "arraybuild.h"
#include "options.h"
#include "rpcobjs.h"
#include "pelkoerr.h"

using namespace testarrays;

namespace {

PAA Pair(const char* name, PAA value) { return Nested({Text(name), value}); }

TEST(Options, PositionalAndNamed) {
  PAA out = (PAA)1;
  PAA x = Text("x");
  EXPECT_EQ(GetOptionpAA(x, 0, COMAX, PelkoOptionNames, &out), 0);
  EXPECT_EQ(out, x);
  EXPECT_EQ(VARefCount(x), 2u);
  out = VAFree(out);
  EXPECT_EQ(GetOptionpAA(x, 1, COMAX, PelkoOptionNames, &out), ERR_ARG_MISSING);
  EXPECT_EQ(out, nullptr);
  x = VAFree(x);

  // 'srv1' '' 5000, then ('Mode' 'raw') ('port' 99)
  PAA args = Nested({Text("srv1"), Text(""), VAInt(5000), Pair("Mode", Text("raw")),
                     Pair("port", VAInt(99))});
  char buf[32];
  EXPECT_STREQ(GetPCH10(args, COName, COMAX, PelkoOptionNames, buf, sizeof(buf)), "srv1");
  EXPECT_STREQ(GetPCH10(args, COAddress, COMAX, PelkoOptionNames, buf, sizeof(buf)), "");
  SI4 port = 0;
  // The positional port comes first: the search stops there.
  EXPECT_EQ(GetSI4(args, COPort, COMAX, PelkoOptionNames, -1, &port), 0);
  EXPECT_EQ(port, 5000);
  SI4 err = 1;
  EXPECT_EQ(GetEnum(args, COMode, COMAX, PelkoOptionNames, 8, modename, 0, &err), 1);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(CheckArgList(args, COMAX, PelkoOptionNames), 0);
  SI4 size = 0;
  EXPECT_EQ(GetSI4(args, COMaxSize, COMAX, PelkoOptionNames, 16384, &size), 0);
  EXPECT_EQ(size, 16384);
  args = VAFree(args);

  // A two-element nested vector in first place is a pair, not a value.
  args = Nested({Pair("Port", VAInt(7)), Pair("Name", Text("n1"))});
  EXPECT_EQ(GetSI4(args, COPort, COMAX, PelkoOptionNames, -1, &port), 0);
  EXPECT_EQ(port, 7);
  EXPECT_EQ(GetOptionpAA(args, COName, COMAX, PelkoOptionNames, &out), 0);
  EXPECT_EQ(Str(out), "n1");
  out = VAFree(out);
  EXPECT_EQ(GetOptionpAA(args, COMode, COMAX, PelkoOptionNames, &out), ERR_ARG_MISSING);
  args = VAFree(args);

  // Positional values after a keyword can't be had.
  args = Nested({Pair("Port", VAInt(7)), Text("late")});
  EXPECT_EQ(GetOptionpAA(args, COName, COMAX, PelkoOptionNames, &out), ERR_ARG_INVALID);
  args = VAFree(args);

  PAA empty = VANewVector(VAPntr, 0);
  EXPECT_EQ(GetOptionpAA(empty, 0, COMAX, PelkoOptionNames, &out), ERR_ARG_MISSING);
  EXPECT_EQ(CheckArgList(empty, COMAX, PelkoOptionNames), 0);
  empty = VAFree(empty);
}

TEST(Options, MisspeltAndMissing) {
  PAA args = Nested({Pair("Port", VAInt(7)), Pair("Prot", VAInt(1))});
  SI4 port = 0;
  // The search stops at the wanted option; the whole-list check doesn't.
  EXPECT_EQ(GetSI4(args, COPort, COMAX, PelkoOptionNames, -1, &port), 0);
  EXPECT_EQ(CheckArgList(args, COMAX, PelkoOptionNames), ERR_ARG_INVALID);
  PAA out;
  EXPECT_EQ(GetOptionpAA(args, COName, COMAX, PelkoOptionNames, &out), ERR_ARG_INVALID);
  EXPECT_EQ(GetOptionpAA(args, 0, 0, PelkoOptionNames, &out), ERR_ARG_INVALID);
  args = VAFree(args);

  // A name that isn't text fails with the reader's own code.
  args = Nested({Nested({Vector<SI4>(VAI4, {1, 2}), VAInt(1)})});
  EXPECT_EQ(GetOptionpAA(args, 1, COMAX, PelkoOptionNames, &out), ERR_APL_LENGTH);
  args = VAFree(args);

  // A positional list longer than the table passes the check.
  PAA many = VANewVector(VAPntr, 3);
  for (UI4 i = 0; i < 3; i++) VASetSlot(many, i, VAInt((SI4)i));
  EXPECT_EQ(CheckArgList(many, 2, PelkoOptionNames), 0);
  many = VAFree(many);
}

TEST(Options, ValuesAndDefaults) {
  SI1 flag = 5;
  struct {
    PAA value;
    SI1 want;
  } bools[] = {{Text(" yes"), 1}, {Text("no"), 0}, {VAInt(0), 0}, {VAInt(1), 1},
               {Text("True"), 1}, {F8Scalar(1.0), 1}};
  for (auto& b : bools) {
    PAA args = Nested({Pair("IgnoreCase", b.value)});
    EXPECT_EQ(GetBool(args, COIgnoreCase, COMAX, PelkoOptionNames, 9, &flag), 0);
    EXPECT_EQ(flag, b.want);
    VAFree(args);
  }
  PAA args = Nested({Pair("IgnoreCase", VANewScalar(VAI8)), Pair("Port", Text("80"))});
  EXPECT_EQ(GetBool(args, COIgnoreCase, COMAX, PelkoOptionNames, 9, &flag), ERR_ARG_INVALID);
  EXPECT_EQ(flag, 9);
  EXPECT_EQ(GetBool(args, COName, COMAX, PelkoOptionNames, 3, &flag), 0);  // absent
  EXPECT_EQ(flag, 3);
  SI4 port = 0;
  EXPECT_EQ(GetSI4(args, COPort, COMAX, PelkoOptionNames, 42, &port), ERR_ARG_INVALID);
  EXPECT_EQ(port, 42);
  EXPECT_EQ(GetPCH10(args, COName, COMAX, PelkoOptionNames, nullptr, 0), nullptr);
  char* text = GetPCH10(args, COPort, COMAX, PelkoOptionNames, nullptr, 0);
  EXPECT_STREQ(text, "80");
  free(text);
  char small[2];
  EXPECT_EQ(GetPCH10(args, COPort, COMAX, PelkoOptionNames, small, 2), nullptr);
  args = VAFree(args);

  SI4 err = 0;
  args = Nested({Pair("Protocol", Text("IPV6")), Pair("Mode", Text("fast"))});
  EXPECT_EQ(GetEnum(args, COProtocol, COMAX, PelkoOptionNames, 3, protocolname, 2, &err), 1);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(GetEnum(args, COMode, COMAX, PelkoOptionNames, 8, modename, 0, &err), 0);
  EXPECT_EQ(err, ERR_ARG_INVALID);
  EXPECT_EQ(GetEnum(args, COName, COMAX, PelkoOptionNames, 8, modename, 4, &err), 4);
  EXPECT_EQ(err, 0);
  args = VAFree(args);
  EXPECT_EQ(Lookup((PCH1) "PORT", COMAX, PelkoOptionNames), COPort);
  EXPECT_EQ(Lookup((PCH1) "Ports", COMAX, PelkoOptionNames), COMAX);
}

TEST(Options, StopLists) {
  LIST* list = (LIST*)1;
  PAA args = Nested({Pair("EOM", Nested({Text("\r\n"), Text("END")}))});
  ASSERT_EQ(GetList(args, COStopList, COMAX, PelkoOptionNames, 1, &list), 0);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->Count, 2);
  EXPECT_EQ(list->Translate, 1);
  EXPECT_EQ(list->items[0]->len, 2);
  EXPECT_STREQ(list->items[0]->pc, "\r\n");
  EXPECT_EQ(list->items[1]->len, 3);
  EXPECT_STREQ(list->items[1]->pc, "END");
  EXPECT_EQ(FreeList(list), 0);
  args = VAFree(args);

  // One text is a list of one; without translation the length is as read.
  args = Nested({Pair("EOM", Text("\n"))});
  ASSERT_EQ(GetList(args, COStopList, COMAX, PelkoOptionNames, 0, &list), 0);
  EXPECT_EQ(list->Count, 1);
  EXPECT_EQ(list->items[0]->len, 1);
  EXPECT_EQ(list->items[0]->pc[0], '\n');
  FreeList(list);
  EXPECT_EQ(GetList(args, COMode, COMAX, PelkoOptionNames, 0, &list), 0);  // absent
  EXPECT_EQ(list, nullptr);
  args = VAFree(args);

  args = Nested({Pair("EOM", Nested({Text("ok"), Vector<SI4>(VAI4, {1, 2})}))});
  EXPECT_EQ(GetList(args, COStopList, COMAX, PelkoOptionNames, 1, &list), ERR_ARG_STOPLIST);
  EXPECT_EQ(list, nullptr);
  args = VAFree(args);
  args = Nested({Pair("Bogus", Text("x"))});
  EXPECT_EQ(GetList(args, COStopList, COMAX, PelkoOptionNames, 1, &list), ERR_ARG_INVALID);
  args = VAFree(args);
  EXPECT_EQ(FreeList(nullptr), 0);
}

}  // namespace
