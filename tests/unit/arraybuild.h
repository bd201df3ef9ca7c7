// Small builders for test arrays.
#pragma once

#include <cstring>
#include <initializer_list>
#include <string>

#include "vapl.h"

namespace testarrays {

inline PAA F8Scalar(F8 v) {
  PAA p = VANewScalar(VAF8);
  memcpy(VADATA(p), &v, 8);
  return p;
}

inline PAA CharScalar(char c) {
  PAA p = VANewScalar(VAC1);
  *(char*)VADATA(p) = c;
  return p;
}

template <typename T>
inline PAA Vector(VATYPES type, std::initializer_list<T> v) {
  PAA p = VANewVector(type, (UI4)v.size());
  UI4 i = 0;
  for (T x : v) memcpy((char*)VADATA(p) + sizeof(T) * i++, &x, sizeof(T));
  return p;
}

inline PAA Text(const std::string& s) {
  PAA p = VANewVector(VAC1, (UI4)s.size());
  memcpy(VADATA(p), s.data(), s.size());
  return p;
}

// A nested vector that takes over the references it is given.
inline PAA Nested(std::initializer_list<PAA> kids) {
  PAA p = VANewVector(VAPntr, (UI4)kids.size());
  UI4 i = 0;
  for (PAA k : kids) VASetSlot(p, i++, k);
  return p;
}

// Element i of a simple array's data, read unaligned.
template <typename T>
inline T At(PAA p, UI4 i) {
  T v;
  memcpy(&v, (char*)VADATA(p) + sizeof(T) * i, sizeof(T));
  return v;
}

// A scalar that holds one child.
inline PAA Enclose(PAA child) {
  PAA p = VANewScalar(VAPntr);
  VASetSlot(p, 0, child);
  return p;
}

inline std::string Str(PAA p) { return std::string((char*)VADATA(p), VAElems(p)); }

}  // namespace testarrays
