// A stop list: the texts that cut raw, text and HTTP streams into pieces.
// Items are searched in list order by BUFFER::FindStop.
#pragma once

#include "taltypes.h"

typedef struct ITEM {
  SI4 len;
  char pc[1];  // really len long
} ITEM;
typedef ITEM* PITEM;

typedef struct LIST {
  SI4 Translate;  // how the items were read; the searches ignore it
  SI4 Count;
  ITEM* items[1];  // really Count long
} LIST;
typedef LIST* PLIST;
