#ifndef QUILLMERE_PLATFORM_BASE_ORDEREDMAP_H
#define QUILLMERE_PLATFORM_BASE_ORDEREDMAP_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace quillmere {

/// A hash with a secret seed of the process. Keys come from documents that strangers write, who
/// could choose them to collide under a known hash.
std::size_t seededHash(std::string_view text);

/// A dictionary with text keys that remembers the order in which keys were first inserted; insert,
/// look-up and erase take amortised constant time.
///
/// It has no iterators: whoever walks it calls delegates on the way, and those may change it. So a
/// walk goes over `keys()`, a copy, and looks every key up again.
template <class Value>
class OrderedMap {
 public:
  OrderedMap() = default;
  // The entries of the table are linked by pointers to each other, so a copy is made key by key.
  OrderedMap(const OrderedMap& other) { append(other); }
  OrderedMap& operator=(const OrderedMap& other) {
    if (this != &other) {
      clear();
      append(other);
    }
    return *this;
  }
  ~OrderedMap() = default;

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  bool contains(std::string_view key) const { return entries_.contains(key); }

  /// The value under `key`, or null; good until the map changes.
  const Value* find(std::string_view key) const {
    const auto found = entries_.find(key);
    return found == entries_.end() ? nullptr : &found->second.value;
  }

  /// Stores `value` under `key`. A key that is already there keeps its place.
  void set(std::string_view key, Value value) {
    const auto found = entries_.find(key);
    if (found != entries_.end()) {
      found->second.value = std::move(value);
      return;
    }
    Node& node = *entries_.emplace(std::string(key), Links{std::move(value)}).first;
    node.second.previous = last_;
    (last_ ? last_->second.next : first_) = &node;
    last_ = &node;
  }

  /// Takes `key` out; nothing happens when it is not there.
  void erase(std::string_view key) {
    const auto found = entries_.find(key);
    if (found == entries_.end()) return;
    const Links& links = found->second;
    (links.previous ? links.previous->second.next : first_) = links.next;
    (links.next ? links.next->second.previous : last_) = links.previous;
    entries_.erase(found);
  }

  void clear() {
    entries_.clear();
    first_ = last_ = nullptr;
  }

  /// All keys, in the order of their first insertion.
  std::vector<std::string> keys() const {
    std::vector<std::string> result;
    result.reserve(size());
    for (const Node* node = first_; node; node = node->second.next) result.push_back(node->first);
    return result;
  }

 private:
  struct Links;
  using Node = std::pair<const std::string, Links>;
  struct Links {
    Value value;
    Node* previous = nullptr;
    Node* next = nullptr;
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const { return seededHash(key); }
  };

  void append(const OrderedMap& other) {
    for (const Node* node = other.first_; node; node = node->second.next) {
      set(node->first, node->second.value);
    }
  }

  std::unordered_map<std::string, Links, Hash, std::equal_to<>> entries_;
  Node* first_ = nullptr;
  Node* last_ = nullptr;
};

/// A set of texts that remembers the order of insertion.
class OrderedSet {
 public:
  bool empty() const { return names_.empty(); }
  bool contains(std::string_view name) const { return names_.contains(name); }
  void insert(std::string_view name) { names_.set(name, {}); }
  void erase(std::string_view name) { names_.erase(name); }
  void clear() { names_.clear(); }
  std::vector<std::string> names() const { return names_.keys(); }

 private:
  OrderedMap<std::monostate> names_;
};

}  // namespace quillmere

#endif
