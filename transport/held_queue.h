#ifndef VELDRIN_TRANSPORT_HELD_QUEUE_H
#define VELDRIN_TRANSPORT_HELD_QUEUE_H

#include <cstddef>
#include <iterator>
#include <list>
#include <memory>
#include <utility>

namespace Veldrin::IndexGen {

// A first-in, first-out queue of records that never move while they are in it, so that a
// parser or a marker may keep a pointer to a record it still needs. Records are added at the
// back and leave from the front only. The nodes of records that left are kept and used again,
// so that a queue that has reached its usual length allocates nothing more.
template <typename Record>
class HeldQueue {
 public:
  using iterator = typename std::list<Record>::iterator;
  using const_iterator = typename std::list<Record>::const_iterator;

  template <typename... Arguments>
  Record& emplace_back(Arguments&&... arguments) {
    if (spare.empty()) return records.emplace_back(std::forward<Arguments>(arguments)...);
    records.splice(records.end(), spare, spare.begin());
    // Made anew where the old record was, with one copy of what it is made from.
    Record* record = &records.back();
    std::destroy_at(record);
    try {
      std::construct_at(record, std::forward<Arguments>(arguments)...);
    } catch (...) {
      // The node goes back to the spares holding an empty record.
      std::construct_at(record);
      spare.splice(spare.begin(), records, std::prev(records.end()));
      throw;
    }
    return *record;
  }
  Record& front() { return records.front(); }
  const Record& front() const { return records.front(); }
  Record& back() { return records.back(); }
  void pop_front() { spare.splice(spare.end(), records, records.begin()); }
  // Removes the records from the front up to, not including, end.
  void pop_front_until(const_iterator end) {
    spare.splice(spare.end(), records, records.cbegin(), end);
  }

  bool empty() const { return records.empty(); }
  size_t size() const { return records.size(); }
  iterator begin() { return records.begin(); }
  iterator end() { return records.end(); }
  const_iterator begin() const { return records.begin(); }
  const_iterator end() const { return records.end(); }

 private:
  std::list<Record> records;
  std::list<Record> spare;  // nodes of records that left, with their old contents
};

}  // namespace Veldrin::IndexGen

#endif
