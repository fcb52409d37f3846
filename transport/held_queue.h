#ifndef VELDRIN_TRANSPORT_HELD_QUEUE_H
#define VELDRIN_TRANSPORT_HELD_QUEUE_H

#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace Veldrin::IndexGen {

// A first-in, first-out queue of records that never move while they are in it, so that a
// parser or a marker may keep a pointer to a record it still needs. Records are added at the
// back and leave from the front only. Each record lives in a node of its own; the queue is a
// ring of pointers to them, and the nodes of records that left are kept and used again, so that
// a queue that has reached its usual length allocates nothing more and moves only pointers.
// Iterators stay valid until a record is added or leaves; references to records stay valid for
// as long as the record is in the queue.
template <typename Record>
class HeldQueue {
  template <bool Constant>
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Record;
    using difference_type = std::ptrdiff_t;
    using pointer = std::conditional_t<Constant, const Record*, Record*>;
    using reference = std::conditional_t<Constant, const Record&, Record&>;

    Iterator() = default;

    reference operator*() const { return *queue->at(place); }
    pointer operator->() const { return queue->at(place); }
    Iterator& operator++() {
      ++place;
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++place;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.place == b.place; }
    friend bool operator!=(const Iterator& a, const Iterator& b) { return a.place != b.place; }

   private:
    friend class HeldQueue;
    Iterator(const HeldQueue* queue_, size_t place_) : queue(queue_), place(place_) {}
    const HeldQueue* queue = nullptr;
    size_t place = 0;  // from the front
  };

 public:
  using iterator = Iterator<false>;
  using const_iterator = Iterator<true>;

  HeldQueue() = default;
  HeldQueue(const HeldQueue&) = delete;
  HeldQueue& operator=(const HeldQueue&) = delete;

  template <typename... Arguments>
  Record& emplace_back(Arguments&&... arguments) {
    // Room first, so that nothing fails once the record is made.
    if (count == ring.size()) grow();
    Record* record;
    if (spare.empty()) {
      // Room for every node among the spares: a record that leaves never needs any.
      spare.reserve(nodes.size() + 1);
      nodes.push_back(std::make_unique<Record>(std::forward<Arguments>(arguments)...));
      record = nodes.back().get();
    } else {
      // Made anew where the old record was, with one copy of what it is made from.
      record = spare.back();
      std::destroy_at(record);
      try {
        std::construct_at(record, std::forward<Arguments>(arguments)...);
      } catch (...) {
        // The node stays a spare, holding an empty record.
        std::construct_at(record);
        throw;
      }
      spare.pop_back();
    }
    ring[(head + count) & (ring.size() - 1)] = record;
    ++count;
    return *record;
  }
  Record& front() { return *ring[head]; }
  const Record& front() const { return *ring[head]; }
  Record& back() { return *at(count - 1); }
  void pop_front() {
    spare.push_back(ring[head]);
    head = (head + 1) & (ring.size() - 1);
    --count;
  }
  // Removes the records from the front up to, not including, end.
  template <bool Constant>
  void pop_front_until(Iterator<Constant> end) {
    for (size_t left = end.place; left > 0; --left) pop_front();
  }

  bool empty() const { return count == 0; }
  size_t size() const { return count; }
  iterator begin() { return iterator(this, 0); }
  iterator end() { return iterator(this, count); }
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, count); }

 private:
  Record* at(size_t place) const { return ring[(head + place) & (ring.size() - 1)]; }

  // Doubles the ring, the records in order from its start.
  void grow() {
    std::vector<Record*> larger(ring.empty() ? 16 : ring.size() * 2);
    for (size_t i = 0; i < count; ++i) larger[i] = at(i);
    ring.swap(larger);
    head = 0;
  }

  std::vector<std::unique_ptr<Record>> nodes;  // every node made, in the queue or spare
  std::vector<Record*> ring;                   // a power of two long, or empty
  size_t head = 0;                             // place in ring of the front record
  size_t count = 0;                            // records in the queue
  std::vector<Record*> spare;                  // nodes of records that left, old contents kept
};

}  // namespace Veldrin::IndexGen

#endif
