// The header tests and helpers of the HTTP send side, on buffers as the
// receive side holds them.
#include <gtest/gtest.h>

#include <cctype>

#include <cstdlib>
#include <cstring>

#include "httpconnection.h"

namespace {

// A buffer holding text as received: its bytes up to the cursor.
struct Held {
  BUFFER b;
  explicit Held(const std::string& text) : b((UI4)text.size(), (PCH1)text.data()) { b.Offset = b.Size; }
};

TEST(HttpHeader, FieldTests) {
  struct Case {
    const char* header;
    const char* name;
    const char* value;
    bool whole, token;
  } cases[] = {
      {"GET / HTTP/1.1\r\nUpgrade: WebSocket\r\n\r\n", "Upgrade:", "websocket", true, true},
      {"Upgrade: websocket \r\n", "Upgrade:", "websocket", false, false},  // no trimming at the end
      {"Upgrade:\t websocket", "upgrade:", "websocket", true, true},         // the field may end the bytes
      {"X-Upgrade: websocket\r\n", "Upgrade:", "websocket", true, true},     // not tied to a line start
      {"Connection: keep-alive , Upgrade\r\n", "Connection:", "Upgrade", false, true},
      {"Connection: keep-alive , Upgrade\r\n", "Connection:", "keep-alive", false, false},
      {"Connection:\r\n", "Connection:", "", true, false},  // an empty field: equal to "", no token
      {"Host: a\r\n", "Connection:", "", false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.header);
    Held h(c.header);
    EXPECT_EQ(isHdr(&h.b, c.name, c.value), c.whole);
    EXPECT_EQ(isHdrM(&h.b, c.name, c.value), c.token);
  }
}

TEST(HttpHeader, StopListsAreOneBlockFoundInListOrder) {
  const char* stops[] = {"\r\n\r\n", "\n\n", "x"};
  PLIST list = GenStopList(3, stops);
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->Count, 3);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(std::string(list->items[i]->pc, (size_t)list->items[i]->len), stops[i]);
    EXPECT_EQ((uintptr_t)list->items[i] % alignof(ITEM), 0u);
  }
  Held h("a\n\nb\r\n\r\n");
  PITEM found = nullptr;
  EXPECT_EQ(h.b.FindStop(list, false, &found), 3);
  EXPECT_EQ(found, list->items[1]);
  free(list);
}

TEST(HttpHeader, HttpDateHasItsForm) {
  char text[80];
  UI4 n = HttpDate(text, sizeof text);
  EXPECT_EQ(n, strlen(text));
  // "Sun, 06 Nov 1994 08:49:37 GMT": the form, letter by letter.
  const char form[] = "Aaa, 00 Aaa 0000 00:00:00 GMT";
  ASSERT_EQ(n, sizeof(form) - 1) << text;
  for (UI4 i = 0; i < n; i++) {
    char f = form[i], c = text[i];
    bool ok = f == 'A' ? isupper((unsigned char)c) : f == 'a' ? islower((unsigned char)c)
              : f == '0' ? isdigit((unsigned char)c) : c == f;
    EXPECT_TRUE(ok) << text << " at " << i;
  }
  EXPECT_EQ(HttpDate(text, 10), 0u);  // no room: nothing
}

}  // namespace
