// Both kinds of list against a plain sequence of numbers, and the cases where they differ.
#include <algorithm>

#include "support/library_test.h"

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
uint32_t compareTens(const void* key, const Node* node) {
  const int number = reinterpret_cast<const Item<Node>*>(node)->number;
  return *static_cast<const int*>(key) == number / 10 ? 0 : 1;
}

// What SLL_Previous is for the other kind.
DllNode* previous(const DllList* list, const DllNode* node) {
  DllNode* before = node == nullptr ? list->head.prev : node->prev;
  return before == &list->head ? nullptr : before;
}

template <typename List, typename Node>
void expectASequence(List& list, Node*& last, auto insert, auto erase, auto get, auto find,
                     auto walk, auto freeAll, auto before) {
  std::array<Item<Node>, 40> items{};
  std::vector<int> expected;
  std::mt19937 random(7);
  const auto node = [&items](int number) { return &items[static_cast<size_t>(number)].node; };
  for (int step = 0; step < 20'000; ++step) {
    SCOPED_TRACE(step);
    const int number = static_cast<int>(random() % items.size());
    items[static_cast<size_t>(number)].number = number;
    const auto at = std::find(expected.begin(), expected.end(), number);
    const bool linked = at != expected.end();
    const auto operation = random() % 64;
    g_seen.clear();
    if (operation == 0) {
      freeAll(&list, wreck<Node>);
      ASSERT_EQ(g_seen, expected);
      expected.clear();
    } else if (operation < 8) {
      ASSERT_EQ(get(&list), expected.empty() ? nullptr : node(expected.front()));
      expected.erase(expected.begin(), expected.begin() + (expected.empty() ? 0 : 1));
    } else if (operation < 24) {
      erase(&list, node(number));
      expected.erase(at, at + (linked ? 1 : 0));
    } else if (!linked) {
      const size_t place = random() % (expected.size() + 1);
      Node* const front = operation < 40 ? nullptr : &list.head;
      insert(&list, place == 0 ? front : node(expected[place - 1]), node(number));
      expected.insert(expected.begin() + static_cast<long>(place), number);
    }
    g_seen.clear();
    ASSERT_EQ(walk(&list, see<Node>), expected.size());
    ASSERT_EQ(g_seen, expected);
    ASSERT_TRUE(list.count == expected.size() && list.reserved == 0x5A5A);
    ASSERT_EQ(last, expected.empty() ? &list.head : node(expected.back()));
    ASSERT_EQ(last->next, &list.head);
    const int tens = number / 10;
    const auto match = std::find_if(expected.begin(), expected.end(),
                                    [=](int candidate) { return candidate / 10 == tens; });
    ASSERT_EQ(find(&list, &tens, compareTens<Node>),
              match == expected.end() ? nullptr : node(*match));
    const Node* behind = nullptr;
    for (auto back = expected.rbegin(); back != expected.rend(); ++back) {
      ASSERT_EQ(before(&list, behind), node(*back));
      behind = node(*back);
    }
    ASSERT_EQ(before(&list, behind), nullptr);
    for (const auto& item : items) {
      const bool held = std::count(expected.begin(), expected.end(), item.number) != 0;
      ASSERT_TRUE(held || (item.node.next == nullptr && before(&list, &item.node) == nullptr));
    }
  }
}

TEST(LinkedLists, OfBothKindsHoldWhatASequenceWould) {
  DllList doubly{{&doubly.head, &doubly.head}, 0x5A5A, 0};
  expectASequence(doubly, doubly.head.prev, DLL_Insert, DLL_Delete, DLL_Get, DLL_Find, DLL_Walk,
                  DLL_FreeAll, previous);
  SllList singly{{&singly.head}, 0x5A5A, &singly.head, 0};
  expectASequence(singly, singly.tail, SLL_Insert, SLL_Delete, SLL_Get, SLL_Find, SLL_Walk,
                  SLL_FreeAll, SLL_Previous);
}

TEST(LinkedLists, TolerateNullWhereTheySaySo) {
  DllList list{{&list.head, &list.head}, 0, 0};
  DllNode node{};
  DLL_Insert(nullptr, nullptr, &node);
  DLL_Insert(&list, nullptr, nullptr);
  DLL_Insert_In_Middle(&list, &list.head, nullptr, &list.head);
  DLL_FreeAll(nullptr, wreck);
  EXPECT_EQ(node.next, nullptr);
  DllNode stray{&node, &node};  // its neighbours do not know it, or only one of them does
  for (const DllNode& neighbour : {DllNode{}, DllNode{&stray, nullptr}, DllNode{nullptr, &stray}}) {
    node = neighbour;
    DLL_Delete(&list, &stray);
    EXPECT_TRUE(stray.next == &node && stray.prev == &node);
  }
  EXPECT_TRUE(list.count == 0 && list.head.next == &list.head);
}

}  // namespace
