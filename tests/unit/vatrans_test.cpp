// Transliteration tables, translations read from the ini file, and the two
// translation exports.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "aplrpc.h"
#include "pelkoerr.h"
#include "root.h"
#include "vatrans.h"
#include "vaunicod.h"

extern char AplName[7];
extern char HostName[7];

namespace {

const char* kTransFile = PELKO_TEST_DATA "/trans.ini";

void FreeTrans(void* root) {
  for (PTRANS p = (PTRANS)root; p;) {
    PTRANS next = p->pNextTrans;
    free(p);
    p = next;
  }
}

TEST(Trans, Tables) {
  ClrChar2asc();
  ClrChar2av();
  char text[4] = "abc";
  EXPECT_EQ(VA2ascn(text, 3), text);
  EXPECT_STREQ(text, "abc");  // no table: nothing changes
  char shift[256];
  for (int i = 0; i < 256; i++) shift[i] = (char)(i + 1);
  SetChar2asc(shift);
  EXPECT_EQ(isav2asc, 1);
  VA2ascn(text, 0);
  EXPECT_STREQ(text, "abc");
  VA2ascn(text, 2);
  EXPECT_STREQ(text, "bcc");
  VA2avn(text, 3);
  EXPECT_STREQ(text, "bcc");  // the other table isn't set
  ClrChar2asc();
  EXPECT_EQ(isav2asc, 0);
  for (int i = 0; i < 256; i++) EXPECT_EQ((UI1)av2asc[i], i);
}

TEST(Trans, FindAndRead) {
  pAPLUnicodeFile = (PCH1)kTransFile;
  void* root = nullptr;
  PCH1 trans = (PCH1)1;
  EXPECT_EQ(FindTrans((PCH1) "latin1", (PCH1) "LATIN1", &root, &trans), 0);
  EXPECT_EQ(trans, nullptr);  // same set: no translation needed
  EXPECT_EQ(root, nullptr);

  ASSERT_EQ(FindTrans((PCH1) "AVCLAS", (PCH1) "LATIN1", &root, &trans), 0);
  ASSERT_NE(trans, nullptr);
  for (UI4 i = 0; i < 256; i++) {
    UI1 want = AVU[i] < 256 ? (UI1)AVU[i] : 26;  // the target's DefaultChar
    EXPECT_EQ((UI1)trans[i], want) << i;
  }
  ASSERT_EQ(FindTrans((PCH1) "LATIN1", (PCH1) "AVCLAS", &root, &trans), 0);
  EXPECT_EQ((UI1)trans['a'], 17);
  EXPECT_EQ((UI1)trans[0xC1], 97);
  EXPECT_EQ((UI1)trans[0x90], 0);  // U+0090 has no place in AVCLAS: its default
  // '?' stands at 63 and at 128 to 255 of ASCII7: the lowest byte wins.
  ASSERT_EQ(FindTrans((PCH1) "LATIN1", (PCH1) "ASCII7", &root, &trans), 0);
  EXPECT_EQ((UI1)trans['?'], 63);
  EXPECT_EQ((UI1)trans[0xE9], 63);  // the default

  // Found again in the list, without the file.
  pAPLUnicodeFile = (PCH1) "/nonexistent/trans.ini";
  PCH1 again;
  ASSERT_EQ(FindTrans((PCH1) "avclas", (PCH1) "latin1", &root, &again), 0);
  EXPECT_NE(again, nullptr);
  EXPECT_EQ(FindTrans((PCH1) "AVCLAS", (PCH1) "EBCDIC", &root, &trans), ERR_UNI_CONVERSION);
  EXPECT_EQ(trans, nullptr);

  // An incomplete table is refused instead of asked for again and again.
  pAPLUnicodeFile = (PCH1)kTransFile;
  EXPECT_EQ(FindTrans((PCH1) "BROKEN", (PCH1) "LATIN1", &root, &trans), ERR_UNI_CONVERSION);
  EXPECT_EQ(FindTrans((PCH1) "NOSET", (PCH1) "LATIN1", &root, &trans), ERR_UNI_CONVERSION);
  FreeTrans(root);
  pAPLUnicodeFile = nullptr;
}

TEST(Trans, Exports) {
  char a2h[256], h2a[256];
  for (int i = 0; i < 256; i++) {
    a2h[i] = (char)(255 - i);
    h2a[i] = (char)i;
  }
  EXPECT_EQ(SetXLate((char*)"APL", (char*)"LONGHOSTNAME", a2h, h2a), 0);
  EXPECT_STREQ(AplName, "APL   ");
  EXPECT_STREQ(HostName, "LONGHO");
  EXPECT_EQ(isav2asc, 1);
  EXPECT_EQ(isasc2av, 1);
  char c = 0;
  VA2ascn(&c, 1);
  EXPECT_EQ((UI1)c, 255);

  pAPLUnicodeFile = (PCH1)kTransFile;
  char av2[256], asc2[256];
  memset(asc2, 'x', sizeof(asc2));
  EXPECT_EQ(GetXLate((char*)"AVCLAS", (char*)"LATIN1", av2, asc2), 0);
  EXPECT_EQ(av2[17], 'a');
  EXPECT_EQ((UI1)asc2['A'], 65);
  EXPECT_EQ((UI1)asc2['a'], 17);
  // Not installed by reading.
  VA2ascn(&c, 1);
  EXPECT_EQ((UI1)c, 0);
  memset(asc2, 'x', sizeof(asc2));
  EXPECT_EQ(GetXLate((char*)"LATIN1", (char*)"NOSET", av2, asc2), ERR_UNI_CONVERSION);
  EXPECT_EQ(asc2[0], 'x');  // the second table is left alone
  EXPECT_EQ(GetXLate((char*)"ascii7", (char*)"ASCII7", av2, asc2), 0);
  EXPECT_EQ((UI1)av2[200], 200);  // no translation: identity
  pAPLUnicodeFile = nullptr;

  // Every start of a root, and a refused second one, resets both tables.
  ASSERT_EQ(Init((char*)"xlateroot", (char*)"/x/y/pelko.so"), 0);
  EXPECT_EQ(isav2asc, 0);
  EXPECT_EQ(isasc2av, 0);
  SetXLate((char*)"APL", (char*)"HOST", a2h, h2a);
  EXPECT_EQ(Init((char*)"xlateroot", (char*)"/x/"), ERR_ALLREADY_INITIALIZED);
  EXPECT_EQ(isav2asc, 0);
  EXPECT_EQ(isasc2av, 0);
  RPCUnload(Root("xlateroot"));
}

}  // namespace
