#ifndef QUILLMERE_PLATFORM_BASE_ORDEREDMAP_H
#define QUILLMERE_PLATFORM_BASE_ORDEREDMAP_H

#include <quillmere/platform/base/Export.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace quillmere {

/// A hash with a secret seed of the process. Keys come from documents that strangers write, who
/// could choose them to collide under a known hash.
QUILLMERE_EXPORT std::size_t seededHash(std::string_view text);

/// A dictionary with text keys that remembers the order in which keys were first inserted; insert,
/// look-up and erase take amortised constant time. With `std::string_view` as `Key` the texts must
/// outlive the dictionary.
///
/// It has no iterators: whoever walks it calls delegates on the way, and those may change it. So a
/// walk goes over `keys()`, a copy, and looks every key up again. For the same reason a value
/// leaves the dictionary before it is destroyed: its destructor may come back here.
template <class Value, class Key = std::string>
class OrderedMap {
 public:
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  /// The value under `key`, or null; good until the map changes.
  const Value* find(std::string_view key) const {
    const Slot* slot = slotOf(key, hashOf(key));
    return slot ? &entries_[slot->number - 1].value : nullptr;
  }

  /// Stores `value` under `key`, and tells whether the key is new. One that is already there keeps
  /// its place.
  bool set(Key key, Value value) {
    const std::uint32_t hash = hashOf(key);
    if (const Slot* slot = slotOf(key, hash)) {
      std::swap(entries_[slot->number - 1].value, value);
      return false;
    }
    if (entries_.size() >= slots_.size() / 2) rebuild();
    entries_.push_back({std::move(key), std::move(value), hash, true});
    addSlot(hash, entries_.size());
    ++size_;
    return true;
  }

  /// Takes `key` out; nothing happens when it is not there.
  void erase(std::string_view key) {
    const Slot* slot = slotOf(key, hashOf(key));
    if (!slot) return;
    --size_;
    const std::size_t number = std::exchange(slots_[indexOf(slot)].number, gone);
    const Entry taken = std::exchange(entries_[number - 1], {});
  }

  void clear() { const OrderedMap gone = std::exchange(*this, {}); }

  /// All keys, in the order of their first insertion.
  std::vector<Key> keys() const {
    std::vector<Key> result;
    result.reserve(size());
    for (const Entry& entry : entries_) {
      if (entry.isPresent) result.push_back(entry.key);
    }
    return result;
  }

 private:
  // An entry that was taken out stays, empty, until the table is built anew.
  struct Entry {
    Key key;
    Value value{};
    std::uint32_t hash = 0;
    bool isPresent = false;
  };
  // What a look-up goes through before it looks at an entry.
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t number = 0;  // of the entry, from 1; 0 ends a search, `gone` does not
  };
  static constexpr std::uint32_t gone = ~std::uint32_t{0};

  static std::uint32_t hashOf(std::string_view key) {
    return static_cast<std::uint32_t>(seededHash(key));
  }

  // Null when the key is not there.
  const Slot* slotOf(std::string_view key, std::uint32_t hash) const {
    if (slots_.empty()) return nullptr;
    for (std::size_t at = hash;; ++at) {
      const Slot& slot = slots_[at & (slots_.size() - 1)];
      if (slot.number == 0) return nullptr;
      if (slot.hash == hash && slot.number != gone && entries_[slot.number - 1].key == key) {
        return &slot;
      }
    }
  }

  std::size_t indexOf(const Slot* slot) const {
    return static_cast<std::size_t>(slot - slots_.data());
  }

  // Takes the slot of an entry that is gone where it meets one, so that a key which comes and goes
  // does not fill the slots around it.
  void addSlot(std::uint32_t hash, std::size_t number) {
    std::size_t at = hash & (slots_.size() - 1);
    while (slots_[at].number != 0 && slots_[at].number != gone) at = (at + 1) & (slots_.size() - 1);
    slots_[at] = {hash, static_cast<std::uint32_t>(number)};
  }

  // Drops what was taken out, and makes room for as many entries again.
  void rebuild() {
    constexpr std::size_t fewestSlots = 16;
    std::vector<Slot> slots(std::bit_ceil(std::max(fewestSlots, 4 * size_)));
    std::erase_if(entries_, [](const Entry& entry) { return !entry.isPresent; });
    slots_ = std::move(slots);
    std::size_t number = 0;
    for (const Entry& entry : entries_) addSlot(entry.hash, ++number);
  }

  std::deque<Entry> entries_;  // in order of insertion
  std::vector<Slot> slots_;    // a power of two, at most half of them taken
  std::size_t size_ = 0;
};

/// A set of texts that remembers the order of insertion.
template <class Name>
class OrderedSetOf {
 public:
  std::size_t size() const { return names_.size(); }
  bool empty() const { return names_.empty(); }
  bool contains(std::string_view name) const { return names_.contains(name); }
  /// Whether the name is new.
  bool insert(Name name) { return names_.set(std::move(name), {}); }
  void erase(std::string_view name) { names_.erase(name); }
  void clear() { names_.clear(); }
  std::vector<Name> names() const { return names_.keys(); }

 private:
  OrderedMap<std::monostate, Name> names_;
};

using OrderedSet = OrderedSetOf<std::string>;
/// The names must outlive the set.
using OrderedViewSet = OrderedSetOf<std::string_view>;

}  // namespace quillmere

#endif
