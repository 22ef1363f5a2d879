#include <gtest/gtest.h>
#include <quillmere/platform/base/OrderedMap.h>

#include <algorithm>
#include <memory>
#include <random>

namespace quillmere {
namespace {

using Names = std::vector<std::string>;

TEST(OrderedMap, AKeyThatComesAndGoesStaysQuickToFind) {
  OrderedMap<int> map;
  for (int i = 0; i < 1000; ++i) map.set("name " + std::to_string(i), i);
  for (int i = 0; i < 300'000; ++i) {
    map.set("comes and goes", i);
    map.erase("comes and goes");
  }
  EXPECT_EQ(map.size(), 1000U);
  EXPECT_EQ(*map.find("name 999"), 999);
}

// A value's destructor may come back to the map that held it.
TEST(OrderedMap, IsWholeAgainBeforeAValueIsDestroyed) {
  OrderedMap<std::shared_ptr<void>> map;
  int destroyed = 0;
  const auto value = [&](const char* key) {
    return std::shared_ptr<void>(nullptr, [&map, &destroyed, key](void*) {
      ++destroyed;
      EXPECT_FALSE(map.contains(key));
      map.set(std::string("left by ") + key, nullptr);
    });
  };
  map.set("a", value("a"));
  map.set("b", value("b"));
  map.erase("a");
  map.clear();
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(map.keys(), Names{"left by b"});
}

TEST(OrderedMap, AgreesWithAListOverRandomOperations) {
  std::mt19937 random(2);
  OrderedMap<unsigned> map;
  std::vector<std::pair<std::string, unsigned>> list;
  for (int step = 0; step < 20000; ++step) {
    const std::string key = "name " + std::to_string(random() % 60);
    const auto inList = std::find_if(list.begin(), list.end(),
                                     [&](const auto& entry) { return entry.first == key; });
    if (random() % 2) {
      const auto value = static_cast<unsigned>(random());
      EXPECT_EQ(map.set(key, value), inList == list.end());
      if (inList == list.end()) {
        list.emplace_back(key, value);
      } else {
        inList->second = value;
      }
    } else {
      map.erase(key);
      if (inList != list.end()) list.erase(inList);
    }
    ASSERT_EQ(map.size(), list.size());
    ASSERT_EQ(map.empty(), list.empty());
    if (step % 100 != 0) continue;
    const Names keys = map.keys();
    ASSERT_TRUE(std::equal(keys.begin(), keys.end(), list.begin(), list.end(),
                           [&](const std::string& mapKey, const auto& entry) {
                             return mapKey == entry.first && *map.find(mapKey) == entry.second;
                           }));
  }
}

}  // namespace
}  // namespace quillmere
