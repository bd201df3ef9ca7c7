// Buffers: the cursor, cutting, searching and the file window.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "buffer.h"

namespace {

// A stop list built the way GetList builds one: one allocation per item.
PLIST MakeList(std::initializer_list<std::string> items) {
  PLIST l = (PLIST)calloc(1, sizeof(LIST) + items.size() * sizeof(ITEM*));
  for (const std::string& s : items) {
    PITEM it = (PITEM)calloc(1, sizeof(ITEM) + s.size() + 7);
    it->len = (SI4)s.size();
    memcpy(it->pc, s.data(), s.size());
    l->items[l->Count++] = it;
  }
  return l;
}

void FreeList(PLIST l) {
  for (SI4 i = 0; i < l->Count; i++) free(l->items[i]);
  free(l);
}

BUFFER* Held(const std::string& s, UI4 size = 64) {
  BUFFER* b = new BUFFER(size);
  b->Append((PCH1)s.data(), (UI4)s.size());
  return b;
}

TEST(Buffer, CursorCutAndResize) {
  BUFFER b(10, (PCH1) "0123456789");
  EXPECT_EQ(b.Offset, 0u);
  EXPECT_EQ(b.NextSize(), 10u);
  EXPECT_FALSE(b.NextProcessed(4));
  EXPECT_EQ(std::string(b.Next(), 2), "45");
  EXPECT_TRUE(b.NextProcessed(6));
  EXPECT_TRUE(b.Complete());
  b.Rewind();

  BUFFER big(BUFFERBLKSIZE * 2);
  EXPECT_EQ(big.NextSize(), (UI4)BUFFERBLKSIZE);
  big.AllInOne();
  EXPECT_EQ(big.NextSize(), (UI4)BUFFERBLKSIZE * 2);

  // Resize to the same size reallocates and keeps the bytes.
  PCH1 old = b.pBuf;
  b.Resize(10);
  EXPECT_NE(b.pBuf, old);
  EXPECT_EQ(std::string(b.pBuf, 10), "0123456789");
  b.Resize(4);  // only the logical end moves
  EXPECT_EQ(b.TotalSize(), 4u);
  b.Resize(12);
  EXPECT_EQ(std::string(b.pBuf, 4), "0123");

  BUFFER* h = Held("abcdef", 8);
  BUFFER* t = h->Take(2);
  EXPECT_EQ(t->Offset, 2u);
  EXPECT_EQ(std::string(t->pBuf, 2), "ab");
  h->Drop(2);
  EXPECT_EQ(h->Offset, 4u);
  EXPECT_EQ(std::string(h->pBuf, 4), "cdef");
  h->Drop(9);  // more than held: empty, nothing moves
  EXPECT_EQ(h->Offset, 0u);
  EXPECT_EQ(std::string(h->pBuf, 4), "cdef");
  BUFFER* z = h->Take(0);
  EXPECT_EQ(z->Offset, 0u);
  EXPECT_TRUE(z->Complete());

  // Appending past the end stops at the block; AppendP at the logical end.
  EXPECT_TRUE(h->AppendP((PCH1) "0123456789", 10));
  EXPECT_EQ(h->Offset, 8u);
  h->Rewind();
  h->Append((PCH1) "0123456789", 10);
  EXPECT_EQ(h->Offset, 8u);

  UI1 key[4] = {1, 2, 3, 4};
  BUFFER m(5, (PCH1) "\x01\x02\x03\x04\x05");
  m.Mask(key, 4);
  EXPECT_EQ(std::string(m.pBuf, 5), std::string("\0\0\0\0\x04", 5));
  m.Mask(key, 0);  // no key: left alone
  EXPECT_EQ(m.pBuf[4], 4);
  // Longer payloads go by words and end by bytes, in the key's step.
  std::string src(21, '\0');
  for (size_t i = 0; i < src.size(); i++) src[i] = (char)(i * 37);
  BUFFER w((UI4)src.size(), (PCH1)src.data());
  w.Mask(key, 4);
  for (size_t i = 0; i < src.size(); i++) EXPECT_EQ((UI1)w.pBuf[i], (UI1)(src[i] ^ key[i % 4])) << i;
  delete h;
  delete t;
  delete z;
}

TEST(Buffer, Searches) {
  BUFFER* b = Held("abc");
  EXPECT_EQ(b->FindAsc((PCH10) "b", true, false), 2);
  EXPECT_EQ(b->FindAsc((PCH10) "b", false, false), 1);
  EXPECT_EQ(b->FindAsc((PCH10) "BC", false, true), 1);
  EXPECT_EQ(b->FindAsc((PCH10) "BC", false, false), -1);
  EXPECT_EQ(b->FindAsc((PCH10) "", false, false), -1);
  EXPECT_EQ(b->FindAsc((PCH10) "abcd", false, false), -1);

  PITEM found = nullptr;
  PLIST ab = MakeList({"ab", "abc"});
  EXPECT_EQ(b->FindStop(ab, false, &found), 2);
  EXPECT_EQ(found, ab->items[0]);  // the first in list order wins
  delete b;

  PLIST crlf = MakeList({"\r\n", "\n"});
  b = Held("a\n");
  EXPECT_EQ(b->FindStop(crlf, false, &found), 2);
  EXPECT_EQ(found, crlf->items[1]);
  delete b;

  PLIST empty = MakeList({""});
  b = new BUFFER(8);
  EXPECT_EQ(b->FindStop(empty, false, &found), -1);  // nothing held yet
  b->Append((PCH1) "xy", 2);
  EXPECT_EQ(b->FindStop(empty, false, &found), 0);
  // From the cursor on, only an empty item can match.
  EXPECT_EQ(b->FindStop1(crlf, false, &found), -1);
  EXPECT_EQ(b->FindStop1(empty, false, &found), 0);

  BUFFER bin(6, (PCH1) "xxabab");
  bin.NextProcessed(1);
  EXPECT_EQ(bin.FindBin1((PCH1) "ab", 2, false), 1);
  EXPECT_EQ(bin.FindBin1((PCH1) "ab", 2, true), 3);
  EXPECT_EQ(bin.FindBin1((PCH1) "zz", 2, true), -1);
  EXPECT_EQ(bin.FindBin1(nullptr, 2, true), -1);
  delete b;
  FreeList(ab);
  FreeList(crlf);
  FreeList(empty);
}

// Sends a file window by window, each window taken whole.
std::string Drain(BUFFERFILE* f) {
  std::string out;
  for (int guard = 0; !f->Complete() && guard < 1000; guard++) {
    UI4 n = f->Size - f->Offset;
    out.append(f->Next(), n);
    f->NextProcessed(n);
  }
  return out;
}

TEST(Buffer, FileWindow) {
  char path[] = "/tmp/pelkobufXXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  unlink(path);
  BUFFERFILE* e = new BUFFERFILE(dup(fd));
  EXPECT_EQ(e->Size, 0u);
  EXPECT_TRUE(e->Complete());
  delete e;

  std::string data;
  for (int i = 0; i < 40000; i++) data += (char)('a' + i % 26);
  ASSERT_EQ(write(fd, data.data(), data.size()), (ssize_t)data.size());

  BUFFERFILE* f = new BUFFERFILE(dup(fd));
  EXPECT_EQ(f->Filesize(), 40000u);
  EXPECT_EQ(Drain(f), data);
  delete f;

  BUFFERFILE* g = new BUFFERFILE(5, (PCH1) "HEAD:", dup(fd));
  EXPECT_EQ(Drain(g), "HEAD:" + data);
  delete g;

  BUFFERFILE* h = new BUFFERFILE(2, (PCH1) "AB", 3, (PCH1) "CDE", dup(fd));
  EXPECT_EQ(Drain(h), "ABCDE" + data);
  delete h;

  // A file that shrinks under the window ends the transfer instead of
  // waiting for bytes that never come.
  BUFFERFILE* s = new BUFFERFILE(dup(fd));
  ASSERT_EQ(ftruncate(fd, 20000), 0);
  std::string got = Drain(s);
  EXPECT_TRUE(s->Complete());
  EXPECT_LE(got.size(), 40000u);
  delete s;
  close(fd);
}

}  // namespace
