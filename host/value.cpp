// Construction, access and comparison of host arrays.
#include "host/value.h"

#include <cstring>
#include <utility>

namespace host {

bool IsHostType(unsigned type) { return type <= 14 && type != 11 && type != 13; }

unsigned ElementBits(Type type) {
  switch (type) {
    case Type::Bit: return 1;
    case Type::Char: case Type::Int8: case Type::Uni8: return 8;
    case Type::Int16: case Type::Uni16: return 16;
    case Type::Int32: case Type::Uni32: return 32;
    case Type::Double: return 64;
    case Type::Complex: case Type::Dpd: case Type::Bid: return 128;
    case Type::Nested: return 0;
  }
  return 0;
}

const char* TypeName(Type type) {
  switch (type) {
    case Type::Char: return "classic char";
    case Type::Bit: return "bit";
    case Type::Int8: return "int8";
    case Type::Int16: return "int16";
    case Type::Int32: return "int32";
    case Type::Double: return "double";
    case Type::Nested: return "nested";
    case Type::Uni8: return "char8";
    case Type::Uni16: return "char16";
    case Type::Uni32: return "char32";
    case Type::Complex: return "complex";
    case Type::Dpd: return "decimal DPD";
    case Type::Bid: return "decimal BID";
  }
  return "?";
}

Value::Value() : type_(Type::Int32), shape_{0} {}

Value::Value(Type type, Shape shape) : type_(type), shape_(std::move(shape)) {}

uint64_t Value::count() const {
  uint64_t n = 1;
  for (uint64_t axis : shape_) n *= axis;
  return n;
}

size_t Value::dataBytes() const { return (size_t)((count() * ElementBits(type_) + 7) / 8); }

Value Value::Simple(Type type, Shape shape, const void* p, size_t bytes) {
  Value v(type, std::move(shape));
  v.data_.assign(v.dataBytes(), 0);
  size_t n = bytes < v.data_.size() ? bytes : v.data_.size();
  if (n) memcpy(v.data_.data(), p, n);
  return v;
}

Value Value::Raw(Type type, Shape shape, std::vector<uint8_t> bytes) {
  Value v(type, std::move(shape));
  bytes.resize(v.dataBytes(), 0);
  v.data_ = std::move(bytes);
  return v;
}

Value Value::Int(int32_t v) { return Simple(Type::Int32, {}, &v, 4); }
Value Value::Bit(bool v) { return Bits({v}).Reshape({}); }
Value Value::Double(double v) { return Simple(Type::Double, {}, &v, 8); }
Value Value::Complex(std::complex<double> v) { return Simple(Type::Complex, {}, &v, 16); }
Value Value::Char(char32_t c) { return Text(std::u32string(1, c), c < 0x100 ? Type::Uni8 : c < 0x10000 ? Type::Uni16 : Type::Uni32).Reshape({}); }

Value Value::Ints(std::vector<int32_t> v) { return Simple(Type::Int32, {v.size()}, v.data(), v.size() * 4); }
Value Value::Int8s(const std::vector<int8_t>& v) { return Simple(Type::Int8, {v.size()}, v.data(), v.size()); }
Value Value::Int16s(const std::vector<int16_t>& v) { return Simple(Type::Int16, {v.size()}, v.data(), v.size() * 2); }
Value Value::Doubles(const std::vector<double>& v) { return Simple(Type::Double, {v.size()}, v.data(), v.size() * 8); }

Value Value::Complexes(const std::vector<std::complex<double>>& v) {
  return Simple(Type::Complex, {v.size()}, v.data(), v.size() * 16);
}

Value Value::Decimals(Type type, const std::vector<Decimal128>& v) {
  return Simple(type, {v.size()}, v.data(), v.size() * 16);
}

Value Value::Bits(const std::vector<bool>& v) {
  Value r = Simple(Type::Bit, {v.size()}, nullptr, 0);
  for (size_t i = 0; i < v.size(); i++)
    if (v[i]) r.data_[i / 8] |= (uint8_t)(0x80 >> (i % 8));
  return r;
}

Value Value::Text(std::string_view utf8) {
  std::u32string text = Utf8Decode(utf8);
  char32_t top = 0;
  for (char32_t c : text) top = c > top ? c : top;
  return Text(text, top < 0x100 ? Type::Uni8 : top < 0x10000 ? Type::Uni16 : Type::Uni32);
}

Value Value::Text(const std::u32string& text, Type type) {
  Value v = Simple(type, {text.size()}, nullptr, 0);
  unsigned width = ElementBits(type) / 8;
  for (size_t i = 0; i < text.size(); i++) {
    uint32_t c = text[i];
    memcpy(&v.data_[i * width], &c, width);  // little-endian: the low bytes
  }
  return v;
}

Value Value::Classic(std::string_view bytes) {
  return Simple(Type::Char, {bytes.size()}, bytes.data(), bytes.size());
}

Value Value::Nested(std::vector<Value> items) {
  if (items.empty()) return EmptyNested(Text(""));
  Value v(Type::Nested, {items.size()});
  v.items_ = std::move(items);
  return v;
}

Value Value::EmptyNested(Value prototype) {
  Value v(Type::Nested, {0});
  v.items_.push_back(std::move(prototype));
  return v;
}

bool Value::Nested(Shape shape, std::vector<Value> items, Value* out) {
  Value v(Type::Nested, std::move(shape));
  uint64_t n = v.count();
  if (items.size() != (n ? n : 1)) return false;
  v.items_ = std::move(items);
  *out = std::move(v);
  return true;
}

Value Value::Reshape(Shape shape) const {
  Value r(type_, std::move(shape));
  uint64_t n = r.count();
  uint64_t have = count();
  if (isNested()) {
    if (n == 0) r.items_.push_back(have ? items_[0] : prototype());
    for (uint64_t i = 0; i < n; i++) r.items_.push_back(have ? items_[i % have] : prototype());
    return r;
  }
  r.data_.assign(r.dataBytes(), 0);
  if (have == 0) return r;
  if (type_ == Type::Bit) {
    for (uint64_t i = 0; i < n; i++)
      if (intAt(i % have)) r.data_[i / 8] |= (uint8_t)(0x80 >> (i % 8));
    return r;
  }
  size_t width = ElementBits(type_) / 8;
  for (uint64_t i = 0; i < n; i++) memcpy(&r.data_[i * width], &data_[(i % have) * width], width);
  return r;
}

bool Value::isText() const {
  return type_ == Type::Char || type_ == Type::Uni8 || type_ == Type::Uni16 || type_ == Type::Uni32;
}

template <typename T>
static T Load(const std::vector<uint8_t>& data, uint64_t i) {
  T v{};
  if ((i + 1) * sizeof(T) <= data.size()) memcpy(&v, &data[i * sizeof(T)], sizeof(T));
  return v;
}

int64_t Value::intAt(uint64_t i) const {
  switch (type_) {
    case Type::Bit: return (data_.at(i / 8) >> (7 - i % 8)) & 1;
    case Type::Int8: return Load<int8_t>(data_, i);
    case Type::Int16: return Load<int16_t>(data_, i);
    case Type::Int32: return Load<int32_t>(data_, i);
    case Type::Double: return (int64_t)Load<double>(data_, i);
    default: return isText() ? (int64_t)charAt(i) : 0;
  }
}

double Value::doubleAt(uint64_t i) const {
  if (type_ == Type::Double) return Load<double>(data_, i);
  if (type_ == Type::Complex) return Load<double>(data_, 2 * i);
  return (double)intAt(i);
}

std::complex<double> Value::complexAt(uint64_t i) const {
  if (type_ == Type::Complex) return {Load<double>(data_, 2 * i), Load<double>(data_, 2 * i + 1)};
  return {doubleAt(i), 0.0};
}

char32_t Value::charAt(uint64_t i) const {
  switch (type_) {
    case Type::Char: case Type::Uni8: return Load<uint8_t>(data_, i);
    case Type::Uni16: return Load<uint16_t>(data_, i);
    case Type::Uni32: return Load<uint32_t>(data_, i);
    default: return 0;
  }
}

Decimal128 Value::decimalAt(uint64_t i) const { return Load<Decimal128>(data_, i); }

std::vector<int64_t> Value::ints() const {
  std::vector<int64_t> r;
  uint64_t n = isNested() ? 0 : count();
  for (uint64_t i = 0; i < n; i++) r.push_back(intAt(i));
  return r;
}

std::string Value::text() const {
  if (type_ == Type::Char) return std::string(data_.begin(), data_.end());
  std::u32string t;
  uint64_t n = isText() ? count() : 0;
  for (uint64_t i = 0; i < n; i++) t.push_back(charAt(i));
  return Utf8Encode(t);
}

bool Value::operator==(const Value& o) const {
  return type_ == o.type_ && shape_ == o.shape_ && data_ == o.data_ && items_ == o.items_;
}

std::u32string Utf8Decode(std::string_view s) {
  std::u32string out;
  for (size_t i = 0; i < s.size();) {
    unsigned char b = (unsigned char)s[i];
    int extra = b < 0x80 ? 0 : (b >> 5) == 6 ? 1 : (b >> 4) == 14 ? 2 : (b >> 3) == 30 ? 3 : -1;
    if (extra < 0 || i + extra >= s.size()) {
      out.push_back(0xFFFD);
      i++;
      continue;
    }
    char32_t c = extra ? (b & (0x3F >> extra)) : b;
    bool ok = true;
    for (int k = 1; k <= extra; k++) {
      unsigned char cb = (unsigned char)s[i + k];
      ok = ok && (cb >> 6) == 2;
      c = (c << 6) | (cb & 0x3F);
    }
    out.push_back(ok ? c : 0xFFFD);
    i += ok ? extra + 1 : 1;
  }
  return out;
}

std::string Utf8Encode(std::u32string_view text) {
  std::string out;
  for (char32_t c : text) {
    if (c < 0x80) {
      out += (char)c;
    } else if (c < 0x800) {
      out += (char)(0xC0 | (c >> 6));
      out += (char)(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += (char)(0xE0 | (c >> 12));
      out += (char)(0x80 | ((c >> 6) & 0x3F));
      out += (char)(0x80 | (c & 0x3F));
    } else {
      out += (char)(0xF0 | ((c >> 18) & 0x07));
      out += (char)(0x80 | ((c >> 12) & 0x3F));
      out += (char)(0x80 | ((c >> 6) & 0x3F));
      out += (char)(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace host
