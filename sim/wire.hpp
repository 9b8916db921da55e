// wire.hpp - byte readers and writers for the rack server's two protocols:
// the control protocol between the simulated libvisa.so (or qbvisa-sim) and
// the server, whose integers are little-endian, and ONC RPC / XDR as VXI-11
// clients speak it, whose integers are big-endian and padded to 4 bytes.
//
// A Reader never reads past its input: a short or inconsistent message sets
// ok() to false and every later read yields zeros, so a decoder checks once
// at the end instead of after every field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qbsim::wire {

using Bytes = std::vector<uint8_t>;

// Control protocol messages: a u32 body length, then the body. Requests
// longer than this are refused by closing the connection.
constexpr uint32_t kMaxMessage = 1u << 20;

class Reader {
 public:
  Reader(const uint8_t *data, size_t size, bool bigEndian = false)
      : data_(data), size_(size), big_(bigEndian) {}

  uint8_t u8();
  uint16_t u16();
  uint32_t u32();
  uint64_t u64();
  int32_t i32() { return static_cast<int32_t>(u32()); }
  // A u32 length, then that many bytes (XDR: padded to a multiple of 4).
  // Lengths beyond the message or beyond `limit` fail the reader.
  Bytes bytes(size_t limit = kMaxMessage);
  std::string text(size_t limit = kMaxMessage);
  // XDR opaque_auth of a call: flavour and body, skipped.
  void skipAuth();

  bool ok() const { return ok_; }
  bool atEnd() const { return ok_ && at_ == size_; }
  size_t left() const { return ok_ ? size_ - at_ : 0; }

 private:
  bool take(size_t n);

  const uint8_t *data_;
  size_t size_;
  size_t at_ = 0;
  bool big_;
  bool ok_ = true;
};

class Writer {
 public:
  explicit Writer(bool bigEndian = false) : big_(bigEndian) {}

  Writer &u8(uint8_t v);
  Writer &u16(uint16_t v);
  Writer &u32(uint32_t v);
  Writer &u64(uint64_t v);
  Writer &i32(int32_t v) { return u32(static_cast<uint32_t>(v)); }
  Writer &bytes(const uint8_t *data, size_t size);
  Writer &bytes(const Bytes &b) { return bytes(b.data(), b.size()); }
  Writer &text(const std::string &s);

  Bytes &out() { return out_; }
  const Bytes &data() const { return out_; }
  // The body behind its u32 length (control protocol framing).
  Bytes framed() const;

 private:
  Bytes out_;
  bool big_;
};

}  // namespace qbsim::wire
