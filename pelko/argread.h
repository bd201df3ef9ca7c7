// Private stand-ins for the element accessors and the option lookup that
// the array library provides. Each does only what the engine's verbs and
// properties need; the real accessors replace them one for one:
//   ArgText -> VAGetCH1(.., VACHAR)   ArgSI4 -> VAGetSI4
//   ArgElement -> VAGetpAA            ArgBytes -> VAGetBytes
//   NewText -> VASetCH1 on a new VAC1 vector, NewNested/PutNested -> VASetpAA
#pragma once

#include <initializer_list>

#include "vapl.h"

// Element index as a zero-terminated text of at most len-1 characters.
SI4 ArgText(PAA arg, UI4 index, PCH1 buf, UI4 len);
SI4 ArgSI4(PAA arg, UI4 index, PSI4 out);
// Element index as an array of its own, with a reference for the caller.
SI4 ArgElement(PAA arg, UI4 index, PPAA out);
// The whole of a simple byte or text array; a null pb asks for the length.
SI4 ArgBytes(PAA arg, PUI1 pb, PUI4 plen);

PAA NewText(const char* text);
PAA NewInt(SI4 value);
PAA NewNested(UI4 n);
// Stores child at index, which takes over the caller's reference.
void PutNested(PAA nested, UI4 index, PAA child);
// A nested vector from the elements given, each reference taken over. Null
// if any of them is null or allocation fails; then all are freed.
PAA NestedOf(std::initializer_list<PAA> items);
