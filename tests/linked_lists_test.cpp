// Both kinds of list against a plain sequence of numbers, and the cases where they differ.
#include <gtest/gtest.h>
#include <qurnadapt/linked_lists.h>

#include <algorithm>
#include <array>
#include <random>
#include <vector>

namespace {

template <typename Node>
struct Item {
  Node node;
  int number;
};

std::vector<int> g_seen;

template <typename Node>
uint32_t see(Node* node) {
  g_seen.push_back(reinterpret_cast<Item<Node>*>(node)->number);
  return 99;
}

// As a component would: the memory of a released node is gone.
template <typename Node>
uint32_t wreck(Node* node) {
  see(node);
  *node = Node{};
  return 0;
}

template <typename Node>
uint32_t compare(const void* key, const Node* node) {
  const int number = reinterpret_cast<const Item<Node>*>(node)->number;
  return *static_cast<const int*>(key) == number / 10 ? 0 : 1;
}

void clear(DllList& list) { list = {{&list.head, &list.head}, 0x5A5A, 0}; }
void clear(SllList& list) { list = {{&list.head}, 0x5A5A, &list.head, 0}; }

DllNode* lastOf(const DllList& list) { return list.head.prev; }
SllNode* lastOf(const SllList& list) { return list.tail; }

// Null for the first and for one that is not linked; the last for null.
DllNode* before(const DllList& list, const DllNode* node) {
  DllNode* prev = node == nullptr ? list.head.prev : node->prev;
  return prev == &list.head ? nullptr : prev;
}
SllNode* before(const SllList& list, const SllNode* node) { return SLL_Previous(&list, node); }

template <typename ListType, typename NodeType, auto Insert, auto Delete, auto Get, auto Find,
          auto Walk, auto FreeAll>
struct Kind {
  using List = ListType;
  using Node = NodeType;
  static constexpr auto insert = Insert;
  static constexpr auto erase = Delete;
  static constexpr auto get = Get;
  static constexpr auto find = Find;
  static constexpr auto walk = Walk;
  static constexpr auto freeAll = FreeAll;
};

template <typename>
class Lists : public testing::Test {};

using Kinds = testing::Types<
    Kind<DllList, DllNode, DLL_Insert, DLL_Delete, DLL_Get, DLL_Find, DLL_Walk, DLL_FreeAll>,
    Kind<SllList, SllNode, SLL_Insert, SLL_Delete, SLL_Get, SLL_Find, SLL_Walk, SLL_FreeAll>>;
TYPED_TEST_SUITE(Lists, Kinds);

TYPED_TEST(Lists, HoldWhatASequenceWould) {
  using Node = typename TypeParam::Node;
  typename TypeParam::List list;
  clear(list);
  std::array<Item<Node>, 40> items{};
  for (size_t i = 0; i < items.size(); ++i) {
    items[i].number = static_cast<int>(i);
  }
  std::vector<int> expected;
  std::mt19937 random(7);
  const auto node = [&items](int number) { return &items[static_cast<size_t>(number)].node; };
  for (int step = 0; step < 20'000; ++step) {
    SCOPED_TRACE(step);
    const int number = static_cast<int>(random() % items.size());
    const auto at = std::find(expected.begin(), expected.end(), number);
    const bool linked = at != expected.end();
    const auto operation = random() % 64;
    g_seen.clear();
    if (operation == 0) {
      TypeParam::freeAll(&list, wreck<Node>);
      ASSERT_EQ(g_seen, expected);
      expected.clear();
    } else if (operation < 8) {
      ASSERT_EQ(TypeParam::get(&list), expected.empty() ? nullptr : node(expected.front()));
      expected.erase(expected.begin(), expected.begin() + (expected.empty() ? 0 : 1));
    } else if (operation < 24) {
      TypeParam::erase(&list, node(number));
      expected.erase(at, at + (linked ? 1 : 0));
    } else if (!linked) {
      const size_t place = random() % (expected.size() + 1);
      Node* const front = operation < 40 ? nullptr : &list.head;
      TypeParam::insert(&list, place == 0 ? front : node(expected[place - 1]), node(number));
      expected.insert(expected.begin() + static_cast<long>(place), number);
    }
    g_seen.clear();
    ASSERT_EQ(TypeParam::walk(&list, see<Node>), expected.size());
    ASSERT_EQ(g_seen, expected);
    ASSERT_TRUE(list.count == expected.size() && list.reserved == 0x5A5A);
    ASSERT_EQ(lastOf(list), expected.empty() ? &list.head : node(expected.back()));
    ASSERT_EQ(lastOf(list)->next, &list.head);
    const int key = number / 10;
    const auto match = std::find_if(expected.begin(), expected.end(),
                                    [key](int candidate) { return candidate / 10 == key; });
    ASSERT_EQ(TypeParam::find(&list, &key, compare<Node>),
              match == expected.end() ? nullptr : node(*match));
    const Node* behind = nullptr;
    for (auto last = expected.rbegin(); last != expected.rend(); ++last) {
      ASSERT_EQ(before(list, behind), node(*last));
      behind = node(*last);
    }
    ASSERT_EQ(before(list, behind), nullptr);
    for (const auto& item : items) {
      const bool held = std::count(expected.begin(), expected.end(), item.number) != 0;
      ASSERT_TRUE(held || (item.node.next == nullptr && before(list, &item.node) == nullptr));
    }
  }
}

TEST(LinkedLists, TolerateNullWhereTheySaySo) {
  DllList list;
  clear(list);
  DllNode node{};
  DLL_Insert(nullptr, nullptr, &node);
  DLL_Insert(&list, nullptr, nullptr);
  DLL_Insert_In_Middle(&list, &list.head, nullptr, &list.head);
  DLL_FreeAll(nullptr, wreck);
  DllNode stray{&node, &node};  // its neighbours do not know it
  DLL_Delete(&list, &stray);
  EXPECT_TRUE(list.count == 0 && list.head.next == &list.head && node.next == nullptr);
}

}  // namespace
