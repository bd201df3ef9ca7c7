// Showing host arrays as an APL session shows them. A value becomes a block
// of lines; nested items are boxed and the boxes set side by side.
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <ostream>
#include <sstream>

#include "host/value.h"

namespace host {
namespace {

using Lines = std::vector<std::string>;

size_t Width(const std::string& s) {
  size_t n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return n;
}

std::string Pad(const std::string& s, size_t width, bool right) {
  std::string fill(width > Width(s) ? width - Width(s) : 0, ' ');
  return right ? fill + s : s + fill;
}

std::string HighMinus(std::string s) {
  std::string out;
  for (char c : s) out += c == '-' ? std::string("¯") : std::string(1, c);
  return out;
}

std::string Number(double d) {
  if (std::isnan(d)) return "NaN";
  if (std::isinf(d)) return d < 0 ? "¯∞" : "∞";
  char buf[40];
  snprintf(buf, sizeof buf, "%.10g", d);
  std::string s = buf;
  size_t e = s.find('e');
  if (e != std::string::npos) {
    // 1e+300 and 1e-05 read 1E300 and 1E¯5.
    int exponent = atoi(s.c_str() + e + 1);
    s = s.substr(0, e) + "E" + std::to_string(exponent);
  }
  return HighMinus(s);
}

using U128 = unsigned __int128;

U128 Load128(const Decimal128& b) {
  U128 v = 0;
  for (int i = 15; i >= 0; i--) v = (v << 8) | b[i];
  return v;
}

// One densely packed declet, three decimal digits.
unsigned Declet(unsigned b) {
  auto bit = [b](int i) { return (b >> i) & 1; };
  unsigned pqr = b >> 7, stu = (b >> 4) & 7, y = bit(0);
  unsigned r = bit(7), u = bit(4);
  unsigned pqy = (bit(9) << 2) | (bit(8) << 1) | y, pqu = (bit(9) << 2) | (bit(8) << 1) | u;
  unsigned d2 = pqr, d1 = stu, d0 = b & 7;
  if (bit(3)) {
    switch ((b >> 1) & 3) {
      case 0: d0 = 8 + y; break;
      case 1: d1 = 8 + u; d0 = (bit(6) << 2) | (bit(5) << 1) | y; break;
      case 2: d2 = 8 + r; d0 = pqy; break;
      default:
        switch ((b >> 5) & 3) {
          case 0: d2 = 8 + r; d1 = 8 + u; d0 = pqy; break;
          case 1: d2 = 8 + r; d1 = pqu; d0 = 8 + y; break;
          case 2: d1 = 8 + u; d0 = 8 + y; break;
          default: d2 = 8 + r; d1 = 8 + u; d0 = 8 + y; break;
        }
    }
  }
  return d2 * 100 + d1 * 10 + d0;
}

std::string Digits(U128 v) {
  std::string s;
  do {
    s.insert(s.begin(), (char)('0' + (int)(v % 10)));
    v /= 10;
  } while (v);
  return s;
}

std::string DecimalText(bool negative, U128 coefficient, int exponent) {
  std::string d = Digits(coefficient);
  std::string sign = negative ? "¯" : "";
  if (exponent >= 0 && d.size() + exponent <= 34) return sign + (coefficient ? d + std::string(exponent, '0') : "0");
  if (exponent < 0 && (size_t)-exponent <= d.size() + 6) {
    if ((size_t)-exponent >= d.size()) d.insert(0, -exponent - d.size() + 1, '0');
    d.insert(d.size() + exponent, ".");
    return sign + d;
  }
  return sign + d + "E" + HighMinus(std::to_string(exponent));
}

// Both 128-bit decimal encodings share the sign and the special values in
// the top bits; they differ in how exponent and coefficient are stored.
std::string Decimal(const Decimal128& raw, bool densePacked) {
  U128 v = Load128(raw);
  bool negative = v >> 127;
  unsigned combo = (unsigned)(v >> 122) & 0x1F;
  if (combo == 0x1E) return negative ? "¯∞" : "∞";
  if (combo == 0x1F) return "NaN";
  if (!densePacked) {
    // A coefficient in the large form is past 10^34: non-canonical, zero.
    if (combo >> 3 == 3) return DecimalText(negative, 0, (int)((v >> 111) & 0x3FFF) - 6176);
    return DecimalText(negative, v & (((U128)1 << 113) - 1), (int)((v >> 113) & 0x3FFF) - 6176);
  }
  unsigned expTop = (combo >> 3) == 3 ? (combo >> 1) & 3 : combo >> 3;
  U128 coefficient = (combo >> 3) == 3 ? 8 + (combo & 1) : combo & 7;
  for (int i = 10; i >= 0; i--) coefficient = coefficient * 1000 + Declet((unsigned)(v >> (i * 10)) & 0x3FF);
  int exponent = (int)((expTop << 12) | ((unsigned)(v >> 110) & 0xFFF)) - 6176;
  return DecimalText(negative, coefficient, exponent);
}

std::string Element(const Value& v, uint64_t i) {
  switch (v.type()) {
    case Type::Double: return Number(v.doubleAt(i));
    case Type::Complex: {
      std::complex<double> c = v.complexAt(i);
      return c.imag() == 0 ? Number(c.real()) : Number(c.real()) + "J" + Number(c.imag());
    }
    case Type::Bid: return Decimal(v.decimalAt(i), false);
    case Type::Dpd: return Decimal(v.decimalAt(i), true);
    default: return HighMinus(std::to_string(v.intAt(i)));
  }
}

Lines Block(const Value& v);

// Simple arrays: text rows as they are, numbers in columns, right-aligned
// in a matrix. Classic characters show as Latin-1.
Lines SimpleBlock(const Value& v) {
  uint64_t cols = v.rank() ? v.shape().back() : 1;
  uint64_t rows = 1;
  for (size_t i = 0; i + 1 < v.rank(); i++) rows *= v.shape()[i];
  std::vector<std::string> cells;
  for (uint64_t i = 0; i < v.count(); i++)
    cells.push_back(v.isText() ? Utf8Encode(std::u32string(1, v.charAt(i))) : Element(v, i));
  std::vector<size_t> width(cols, 0);
  for (uint64_t i = 0; i < cells.size(); i++) width[i % cols] = std::max(width[i % cols], Width(cells[i]));
  bool align = v.rank() > 1 && !v.isText();
  Lines out;
  for (uint64_t r = 0; r < rows; r++) {
    std::string line;
    for (uint64_t c = 0; c < cols; c++) {
      const std::string& cell = cells[r * cols + c];
      line += (c && !v.isText() ? " " : "") + (align ? Pad(cell, width[c], true) : cell);
    }
    out.push_back(line);
  }
  return out;
}

Lines Box(const Lines& inner, bool empty) {
  size_t w = 0;
  for (const auto& l : inner) w = std::max(w, Width(l));
  if (empty && w == 0) w = 1;
  std::string bar;
  for (size_t i = 0; i < w; i++) bar += "─";
  Lines out{empty ? "┌⊖" + bar.substr(3) + "┐" : "┌" + bar + "┐"};
  for (const auto& l : inner) out.push_back("│" + Pad(l, w, false) + "│");
  out.push_back("└" + bar + "┘");
  return out;
}

// Nested arrays: each item boxed (simple scalars stand bare), the items of
// one row side by side, rows below each other.
Lines NestedBlock(const Value& v) {
  if (v.count() == 0) return Box(Block(v.prototype()), true);
  uint64_t cols = v.rank() ? v.shape().back() : 1;
  std::vector<Lines> cells;
  std::vector<size_t> width(cols, 0);
  for (uint64_t i = 0; i < v.count(); i++) {
    const Value& item = v[i];
    // Simple scalars stand bare; an empty nested item is already its own box.
    bool bare = (item.isScalar() && !item.isNested()) || (item.isNested() && item.count() == 0);
    cells.push_back(bare ? Block(item) : Box(Block(item), item.count() == 0));
    for (const auto& l : cells.back()) width[i % cols] = std::max(width[i % cols], Width(l));
  }
  Lines out;
  for (uint64_t r = 0; r * cols < cells.size(); r++) {
    size_t height = 0;
    for (uint64_t c = 0; c < cols; c++) height = std::max(height, cells[r * cols + c].size());
    for (size_t h = 0; h < height; h++) {
      std::string line;
      for (uint64_t c = 0; c < cols; c++) {
        const Lines& cell = cells[r * cols + c];
        line += (c ? " " : "") + Pad(h < cell.size() ? cell[h] : "", width[c], false);
      }
      while (!line.empty() && line.back() == ' ') line.pop_back();
      out.push_back(line);
    }
  }
  return out;
}

Lines Block(const Value& v) {
  Lines rows = v.isNested() ? NestedBlock(v) : SimpleBlock(v);
  if (v.rank() <= 2 || v.isNested()) return rows;
  // Planes of higher ranks are set apart by a blank line.
  uint64_t plane = v.shape()[v.rank() - 2];
  Lines out;
  for (size_t i = 0; i < rows.size(); i++) {
    if (i && plane && i % plane == 0) out.push_back("");
    out.push_back(rows[i]);
  }
  return out;
}

}  // namespace

std::string Value::Format() const {
  std::string out;
  Lines lines = Block(*this);
  for (size_t i = 0; i < lines.size(); i++) out += (i ? "\n" : "") + lines[i];
  return out;
}

std::string Value::Describe() const {
  std::ostringstream os;
  os << TypeName(type_);
  if (shape_.empty()) {
    os << " scalar";
  } else {
    os << " array of shape";
    for (uint64_t axis : shape_) os << ' ' << axis;
  }
  std::string shown = Format();
  os << (shown.find('\n') == std::string::npos ? ": " : ":\n") << shown;
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const Value& v) { return os << v.Describe(); }

}  // namespace host
