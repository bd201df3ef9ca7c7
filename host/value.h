// A host array as the interpreter holds it: an element type, a shape and the
// elements in row-major order. Simple arrays keep their elements in their
// natural size (bits packed most significant first); nested arrays keep their
// items, and an empty nested array keeps one item, its prototype.
#pragma once

#include <array>
#include <complex>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// Host element types, numbered as the interpreter numbers them.
enum class Type : uint8_t {
  Char = 0,     // classic one-byte characters
  Bit = 1,
  Int8 = 2,
  Int16 = 3,
  Int32 = 4,
  Double = 5,
  Nested = 6,
  Uni8 = 7,     // Unicode, one byte a character
  Uni16 = 8,
  Uni32 = 9,
  Complex = 10,
  Dpd = 12,     // 128-bit decimal, densely packed
  Bid = 14,     // 128-bit decimal, binary integer coefficient
};

// True for the host types above; false for the unused numbers 11, 13, 15.
bool IsHostType(unsigned type);
// Element size in bits (1 for Bit, 0 for Nested).
unsigned ElementBits(Type type);
const char* TypeName(Type type);

using Shape = std::vector<uint64_t>;
using Decimal128 = std::array<uint8_t, 16>;

class Value {
 public:
  // The empty integer vector.
  Value();

  // Scalars.
  static Value Int(int32_t v);
  static Value Bit(bool v);
  static Value Double(double v);
  static Value Complex(std::complex<double> v);
  static Value Char(char32_t c);  // narrowest Unicode type that holds c

  // Vectors.
  static Value Ints(std::vector<int32_t> v);
  static Value Ints(std::initializer_list<int32_t> v) { return Ints(std::vector<int32_t>(v)); }
  static Value Int8s(const std::vector<int8_t>& v);
  static Value Int16s(const std::vector<int16_t>& v);
  static Value Bits(const std::vector<bool>& v);
  static Value Doubles(const std::vector<double>& v);
  static Value Complexes(const std::vector<std::complex<double>>& v);
  static Value Decimals(Type type, const std::vector<Decimal128>& v);  // Dpd or Bid
  // UTF-8 text as a character vector of the narrowest Unicode type (7, 8
  // or 9), or of the type given.
  static Value Text(std::string_view utf8);
  static Value Text(const std::u32string& text, Type type);
  // Bytes as classic characters (type 0), unchanged.
  static Value Classic(std::string_view bytes);
  // A nested vector. An empty list gives an empty nested vector whose
  // prototype is the empty text.
  static Value Nested(std::vector<Value> items);
  // An empty nested vector with the prototype given.
  static Value EmptyNested(Value prototype);
  // A nested array of any shape: one item an element, or the prototype
  // alone when the shape is empty. False if the item count doesn't fit.
  static bool Nested(Shape shape, std::vector<Value> items, Value* out);
  // Any type and shape from raw element bytes (simple types only); the
  // bytes are cut or zero-padded to what the shape needs.
  static Value Raw(Type type, Shape shape, std::vector<uint8_t> bytes);

  // The same elements, cycled or cut to a new shape, as APL's reshape.
  // An empty source fills with zero bytes, or with its prototype.
  Value Reshape(Shape shape) const;

  Type type() const { return type_; }
  size_t rank() const { return shape_.size(); }
  const Shape& shape() const { return shape_; }
  uint64_t count() const;
  bool isNested() const { return type_ == Type::Nested; }
  bool isText() const;
  bool isScalar() const { return shape_.empty(); }

  // Element access. Numbers come widened; a nested array's item i.
  int64_t intAt(uint64_t i) const;   // Bit, Int8, Int16, Int32, or a Double's value
  double doubleAt(uint64_t i) const;
  std::complex<double> complexAt(uint64_t i) const;
  char32_t charAt(uint64_t i) const;
  Decimal128 decimalAt(uint64_t i) const;
  const Value& operator[](uint64_t i) const { return items_.at(i); }
  // Items of a nested array; one item, the prototype, when it is empty.
  const std::vector<Value>& items() const { return items_; }
  const Value& prototype() const { return items_.at(0); }
  // Every element as an integer.
  std::vector<int64_t> ints() const;
  // A character array's elements as UTF-8 (classic bytes as they are).
  std::string text() const;
  // Element bytes of a simple array, unpadded.
  const std::vector<uint8_t>& bytes() const { return data_; }

  bool operator==(const Value& o) const;
  bool operator!=(const Value& o) const { return !(*this == o); }

  // As an APL session shows it: numbers with high minus, text plain,
  // nested items boxed, matrices in rows.
  std::string Format() const;
  // Type and shape in words, then the value, for diagnostics.
  std::string Describe() const;

 private:
  Value(Type type, Shape shape);
  static Value Simple(Type type, Shape shape, const void* p, size_t bytes);
  size_t dataBytes() const;

  Type type_;
  Shape shape_;
  std::vector<uint8_t> data_;
  std::vector<Value> items_;
};

std::ostream& operator<<(std::ostream& os, const Value& v);

// Code points of UTF-8 text; invalid bytes map to U+FFFD.
std::u32string Utf8Decode(std::string_view utf8);
std::string Utf8Encode(std::u32string_view text);

}  // namespace host
