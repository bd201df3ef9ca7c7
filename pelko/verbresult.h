// Small values the command-mode verbs and properties answer with, built
// through the array library's accessors.
#pragma once

#include <initializer_list>

#include "vapl.h"

// An integer scalar; null when allocation fails.
PAA IntScalar(SI4 v);
// A character vector of the text; null when allocation fails.
PAA TextVector(const char* text);
// The nested vector of the items, each reference taken over. Null if any
// item is null or allocation fails; then all are freed.
PAA NestedItems(std::initializer_list<PAA> items);
// A verb's success: the nested vector 0 and the value; the code
// ERR_MEMORY_ALLOC when it can't be built.
PAA RcValue(PAA value);
