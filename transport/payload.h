#ifndef VELDRIN_TRANSPORT_PAYLOAD_H
#define VELDRIN_TRANSPORT_PAYLOAD_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <type_traits>
#include <vector>

namespace Veldrin::IndexGen {

// The payload bytes of a packet record. The payload of a packet read from a stream fits in 184
// bytes, which live inside the record itself: reading, copying and keeping a packet takes no
// heap. A payload that an edit makes longer (a PES header grown by its time stamps, a frame's
// preamble) moves to the heap. Its operations are those of a vector of bytes, with the same
// meaning, so that code written for one works with the other.
class Payload {
 public:
  using value_type = unsigned char;
  using size_type = size_t;
  using difference_type = std::ptrdiff_t;
  using reference = unsigned char&;
  using const_reference = const unsigned char&;
  using pointer = unsigned char*;
  using const_pointer = const unsigned char*;
  using iterator = unsigned char*;
  using const_iterator = const unsigned char*;

  static constexpr size_t INLINE_CAPACITY = 184;

  Payload() = default;
  explicit Payload(size_t count, unsigned char value = 0) { assign(count, value); }
  Payload(std::initializer_list<unsigned char> bytes) { assign(bytes.begin(), bytes.end()); }
  template <typename Iterator, typename = typename std::iterator_traits<Iterator>::iterator_category>
  Payload(Iterator first, Iterator last) {
    assign(first, last);
  }
  // From and to a vector, for the code and tests that hold bytes that way.
  Payload(const std::vector<unsigned char>& bytes) {  // NOLINT: converts on purpose
    assign(bytes.data(), bytes.data() + bytes.size());
  }
  operator std::vector<unsigned char>() const { return {begin(), end()}; }  // NOLINT

  Payload(const Payload& other) { copy(other); }
  Payload(Payload&& other) noexcept { take(other); }
  Payload& operator=(const Payload& other) {
    if (this != &other) copy(other);
    return *this;
  }
  Payload& operator=(Payload&& other) noexcept {
    if (this != &other) {
      heap.reset();
      capacity_ = INLINE_CAPACITY;
      take(other);
    }
    return *this;
  }
  Payload& operator=(const std::vector<unsigned char>& bytes) {
    assign(bytes.data(), bytes.data() + bytes.size());
    return *this;
  }
  Payload& operator=(std::initializer_list<unsigned char> bytes) {
    assign(bytes.begin(), bytes.end());
    return *this;
  }
  ~Payload() = default;

  unsigned char* data() { return heap ? heap.get() : inline_bytes; }
  const unsigned char* data() const { return heap ? heap.get() : inline_bytes; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  size_t capacity() const { return capacity_; }
  static constexpr size_t max_size() { return SIZE_MAX / 2; }

  iterator begin() { return data(); }
  iterator end() { return data() + size_; }
  const_iterator begin() const { return data(); }
  const_iterator end() const { return data() + size_; }
  const_iterator cbegin() const { return begin(); }
  const_iterator cend() const { return end(); }

  unsigned char& operator[](size_t index) { return data()[index]; }
  const unsigned char& operator[](size_t index) const { return data()[index]; }
  unsigned char& front() { return data()[0]; }
  const unsigned char& front() const { return data()[0]; }
  unsigned char& back() { return data()[size_ - 1]; }
  const unsigned char& back() const { return data()[size_ - 1]; }

  void reserve(size_t count) {
    if (count > capacity_) grow(count);
  }
  void clear() { size_ = 0; }
  void resize(size_t count, unsigned char value = 0) {
    if (count > size_) {
      reserve(count);
      std::memset(data() + size_, value, count - size_);
    }
    size_ = count;
  }
  void push_back(unsigned char value) {
    if (size_ == capacity_) grow(size_ + 1);
    data()[size_++] = value;
  }
  void pop_back() { --size_; }

  void assign(size_t count, unsigned char value) {
    size_ = 0;
    resize(count, value);
  }
  template <typename Iterator, typename = typename std::iterator_traits<Iterator>::iterator_category>
  void assign(Iterator first, Iterator last) {
    size_ = 0;
    insert(end(), first, last);
  }
  void assign(std::initializer_list<unsigned char> bytes) { assign(bytes.begin(), bytes.end()); }

  iterator insert(const_iterator position, unsigned char value) {
    return insert(position, size_t{1}, value);
  }
  iterator insert(const_iterator position, size_t count, unsigned char value) {
    const size_t at = open(position, count);
    std::memset(data() + at, value, count);
    return data() + at;
  }
  template <typename Iterator, typename = typename std::iterator_traits<Iterator>::iterator_category>
  iterator insert(const_iterator position, Iterator first, Iterator last) {
    const size_t count = static_cast<size_t>(std::distance(first, last));
    // The source may lie inside this payload: copied out first, as a vector would.
    if (count != 0 && overlaps(first, last)) {
      const std::vector<unsigned char> copy(first, last);
      return insert(position, copy.begin(), copy.end());
    }
    const size_t at = open(position, count);
    std::copy(first, last, data() + at);
    return data() + at;
  }
  iterator insert(const_iterator position, std::initializer_list<unsigned char> bytes) {
    return insert(position, bytes.begin(), bytes.end());
  }

  iterator erase(const_iterator position) { return erase(position, position + 1); }
  iterator erase(const_iterator first, const_iterator last) {
    const size_t at = static_cast<size_t>(first - data());
    const size_t count = static_cast<size_t>(last - first);
    unsigned char* bytes_ = data();
    std::memmove(bytes_ + at, bytes_ + at + count, size_ - at - count);
    size_ -= count;
    return bytes_ + at;
  }

  void swap(Payload& other) noexcept {
    Payload held(std::move(other));
    other = std::move(*this);
    *this = std::move(held);
  }

  friend bool operator==(const Payload& a, const Payload& b) { return equal(a, b.data(), b.size()); }
  friend bool operator==(const Payload& a, const std::vector<unsigned char>& b) {
    return equal(a, b.data(), b.size());
  }
  friend bool operator<(const Payload& a, const Payload& b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  static bool equal(const Payload& a, const unsigned char* b, size_t size) {
    return a.size_ == size && (size == 0 || std::memcmp(a.data(), b, size) == 0);
  }

  template <typename Iterator>
  bool overlaps(Iterator first, Iterator last) const {
    if constexpr (std::is_pointer_v<Iterator>) {
      const auto* from = reinterpret_cast<const unsigned char*>(&*first);
      const auto* to = from + (last - first);
      const unsigned char* own = data();
      return !(to <= own || from >= own + capacity_);
    } else {
      return false;
    }
  }

  // Makes room for count bytes at position, moving the tail behind them; gives the index.
  size_t open(const_iterator position, size_t count) {
    const size_t at = static_cast<size_t>(position - data());
    if (size_ + count > capacity_) grow(std::max(size_ + count, 2 * capacity_));
    unsigned char* bytes_ = data();
    std::memmove(bytes_ + at + count, bytes_ + at, size_ - at);
    size_ += count;
    return at;
  }

  void grow(size_t count) {
    std::unique_ptr<unsigned char[]> larger(new unsigned char[count]);
    if (size_ != 0) std::memcpy(larger.get(), data(), size_);
    heap = std::move(larger);
    capacity_ = count;
  }

  void take(Payload& other) {
    size_ = other.size_;
    if (other.heap) {
      heap = std::move(other.heap);
      capacity_ = other.capacity_;
      other.capacity_ = INLINE_CAPACITY;
    } else {
      copy_inline(other);
    }
    other.size_ = 0;
  }

  void copy(const Payload& other) {
    if (other.heap) {
      assign(other.begin(), other.end());
    } else {
      heap.reset();
      capacity_ = INLINE_CAPACITY;
      size_ = other.size_;
      copy_inline(other);
    }
  }

  // Every packet record is copied at least once on its way, so the inline bytes go whole, in a
  // copy of known size, rather than as many as are used: the bytes behind size_ mean nothing.
  void copy_inline(const Payload& other) {
    std::memcpy(inline_bytes, other.inline_bytes, INLINE_CAPACITY);
  }

  size_t size_ = 0;
  size_t capacity_ = INLINE_CAPACITY;
  std::unique_ptr<unsigned char[]> heap;  // null while the bytes fit inline
  unsigned char inline_bytes[INLINE_CAPACITY];
};

}  // namespace Veldrin::IndexGen

#endif
