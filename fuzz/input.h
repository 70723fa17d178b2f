// Takes decisions from the bytes of a fuzz input, front to back. An input that is
// used up goes on with zeros, so that every input means something and cutting one
// short keeps what it began with.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return size_ == 0; }
  size_t left() const { return size_; }

  uint8_t byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }

  // Little-endian, of as many bytes as the type has.
  template <typename Integer>
  Integer number() {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(Integer); ++i) value |= uint64_t{byte()} << (8 * i);
    return static_cast<Integer>(value);
  }

  bool flag() { return (byte() & 1) != 0; }
  uint32_t below(uint32_t bound) { return byte() % bound; }  // [0, bound), bound <= 256

  std::string bytes(size_t count) {
    const size_t taken = std::min(count, size_);
    std::string text(reinterpret_cast<const char*>(data_), taken);
    data_ += taken;
    size_ -= taken;
    return text;
  }

  std::string rest() { return bytes(size_); }

  // One of the elements of an array.
  template <typename T, size_t N>
  const T& oneOf(const T (&choices)[N]) {
    return choices[below(N)];
  }

 private:
  const uint8_t* data_;
  size_t size_;
};
