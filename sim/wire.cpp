// wire.cpp - bounded byte reading and writing for the rack server protocols.
#include "wire.hpp"

namespace qbsim::wire {

bool Reader::take(size_t n) {
  if (!ok_ || n > size_ - at_) {
    ok_ = false;
    return false;
  }
  return true;
}

uint8_t Reader::u8() {
  if (!take(1)) return 0;
  return data_[at_++];
}

uint16_t Reader::u16() {
  if (!take(2)) return 0;
  const uint8_t *p = data_ + at_;
  at_ += 2;
  return big_ ? static_cast<uint16_t>(p[0] << 8 | p[1]) : static_cast<uint16_t>(p[1] << 8 | p[0]);
}

uint32_t Reader::u32() {
  if (!take(4)) return 0;
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) {
    const uint32_t byte = data_[at_ + (big_ ? i : 3 - i)];
    v = v << 8 | byte;
  }
  at_ += 4;
  return v;
}

uint64_t Reader::u64() {
  const uint64_t first = u32();
  const uint64_t second = u32();
  return big_ ? first << 32 | second : second << 32 | first;
}

Bytes Reader::bytes(size_t limit) {
  const uint32_t n = u32();
  const size_t padded = big_ ? (static_cast<size_t>(n) + 3) / 4 * 4 : n;
  if (n > limit) ok_ = false;
  if (!take(padded)) return {};
  Bytes out(data_ + at_, data_ + at_ + n);
  at_ += padded;
  return out;
}

std::string Reader::text(size_t limit) {
  const Bytes b = bytes(limit);
  return {b.begin(), b.end()};
}

void Reader::skipAuth() {
  u32();       // flavour
  bytes(400);  // an RPC credential body is at most 400 bytes
}

Writer &Writer::u8(uint8_t v) {
  out_.push_back(v);
  return *this;
}

Writer &Writer::u16(uint16_t v) {
  if (big_) {
    out_.push_back(static_cast<uint8_t>(v >> 8));
    out_.push_back(static_cast<uint8_t>(v));
  } else {
    out_.push_back(static_cast<uint8_t>(v));
    out_.push_back(static_cast<uint8_t>(v >> 8));
  }
  return *this;
}

Writer &Writer::u32(uint32_t v) {
  for (int i = 0; i < 4; ++i) out_.push_back(static_cast<uint8_t>(v >> (8 * (big_ ? 3 - i : i))));
  return *this;
}

Writer &Writer::u64(uint64_t v) {
  if (big_) return u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
  return u32(static_cast<uint32_t>(v)).u32(static_cast<uint32_t>(v >> 32));
}

Writer &Writer::bytes(const uint8_t *data, size_t size) {
  u32(static_cast<uint32_t>(size));
  out_.insert(out_.end(), data, data + size);
  if (big_)
    while (out_.size() % 4 != 0) out_.push_back(0);
  return *this;
}

Writer &Writer::text(const std::string &s) {
  return bytes(reinterpret_cast<const uint8_t *>(s.data()), s.size());
}

Bytes Writer::framed() const {
  Writer w;
  w.u32(static_cast<uint32_t>(out_.size()));
  w.out_.insert(w.out_.end(), out_.begin(), out_.end());
  return std::move(w.out_);
}

}  // namespace qbsim::wire
