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
int numberOf(const Node* node) {
  return reinterpret_cast<const Item<Node>*>(node)->number;
}

template <typename Node>
uint32_t see(Node* node) {
  g_seen.push_back(numberOf(node));
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
  return *static_cast<const int*>(key) == numberOf(node) / 10 ? 0 : 1;
}

struct Doubly {
  using Node = DllNode;
  using List = DllList;
  static void clear(List& list) { list = {{&list.head, &list.head}, 0x5A5A, 0}; }
  static Node* last(const List& list) { return list.head.prev; }
  static constexpr auto insert = DLL_Insert;
  static constexpr auto erase = DLL_Delete;
  static constexpr auto get = DLL_Get;
  static constexpr auto find = DLL_Find;
  static constexpr auto walk = DLL_Walk;
  static constexpr auto freeAll = DLL_FreeAll;
};

struct Singly {
  using Node = SllNode;
  using List = SllList;
  static void clear(List& list) { list = {{&list.head}, 0x5A5A, &list.head, 0}; }
  static Node* last(const List& list) { return list.tail; }
  static constexpr auto insert = SLL_Insert;
  static constexpr auto erase = SLL_Delete;
  static constexpr auto get = SLL_Get;
  static constexpr auto find = SLL_Find;
  static constexpr auto walk = SLL_Walk;
  static constexpr auto freeAll = SLL_FreeAll;
};

template <typename Kind>
class Lists : public testing::Test {
 protected:
  using Node = typename Kind::Node;

  Lists() {
    Kind::clear(list_);
    for (size_t i = 0; i < items_.size(); ++i) {
      items_[i] = {Node{}, static_cast<int>(i)};
    }
  }

  // The list holds just these, in this order, and every link and count agrees.
  void expectHolds(const std::vector<int>& numbers) {
    g_seen.clear();
    ASSERT_EQ(Kind::walk(&list_, see<Node>), numbers.size());
    ASSERT_EQ(g_seen, numbers);
    ASSERT_EQ(list_.count, numbers.size());
    ASSERT_EQ(list_.reserved, 0x5A5AU);
    Node* expectedLast = numbers.empty() ? &list_.head : node(numbers.back());
    ASSERT_EQ(Kind::last(list_), expectedLast);
    ASSERT_EQ(expectedLast->next, numbers.empty() ? list_.head.next : &list_.head);
    if constexpr (std::is_same_v<Kind, Doubly>) {
      std::vector<int> backwards;
      for (Node* n = list_.head.prev; n != &list_.head; n = n->prev) {
        backwards.insert(backwards.begin(), numberOf(n));
      }
      ASSERT_EQ(backwards, numbers);
    }
  }

  Node* node(int number) { return &items_[static_cast<size_t>(number)].node; }

  typename Kind::List list_;
  std::array<Item<Node>, 40> items_;
};

using Kinds = testing::Types<Doubly, Singly>;
TYPED_TEST_SUITE(Lists, Kinds);

TYPED_TEST(Lists, HoldWhatASequenceWould) {
  std::mt19937 random(7);
  std::vector<int> expected;
  for (int step = 0; step < 20'000; ++step) {
    const int number = static_cast<int>(random() % this->items_.size());
    const auto at = std::find(expected.begin(), expected.end(), number);
    if (at != expected.end() && random() % 2 == 0) {
      TypeParam::erase(&this->list_, this->node(number));
      expected.erase(at);
      ASSERT_EQ(this->node(number)->next, nullptr);
    } else if (at == expected.end() && random() % 8 == 0) {
      TypeParam::erase(&this->list_, this->node(number));  // not linked: nothing happens
    } else if (at == expected.end()) {
      const size_t place = random() % (expected.size() + 1);
      TypeParam::insert(&this->list_, place == 0 ? nullptr : this->node(expected[place - 1]),
                        this->node(number));
      expected.insert(expected.begin() + static_cast<long>(place), number);
    } else if (random() % 4 == 0) {
      ASSERT_EQ(TypeParam::get(&this->list_), this->node(expected.front()));
      ASSERT_EQ(this->node(expected.front())->next, nullptr);
      expected.erase(expected.begin());
    }
    this->expectHolds(expected);
    ASSERT_FALSE(this->HasFatalFailure()) << "step " << step;
  }
}

TYPED_TEST(Lists, FindTheFirstMatchAndReleaseEveryNodeOnce) {
  const int two = 2;
  EXPECT_EQ(TypeParam::find(&this->list_, &two, compare), nullptr);
  EXPECT_EQ(TypeParam::get(&this->list_), nullptr);
  const std::vector<int> numbers{11, 25, 21, 39};
  for (const int number : numbers) {
    TypeParam::insert(&this->list_, TypeParam::last(this->list_), this->node(number));
  }
  EXPECT_EQ(TypeParam::find(&this->list_, &two, compare), this->node(25));
  const int four = 4;
  EXPECT_EQ(TypeParam::find(&this->list_, &four, compare), nullptr);
  g_seen.clear();
  TypeParam::freeAll(&this->list_, wreck);
  EXPECT_EQ(g_seen, numbers);
  this->expectHolds({});
}

TEST(LinkedLists, TolerateNullWhereTheySaySo) {
  DllList list{};
  Doubly::clear(list);
  DllNode node{};
  DLL_Insert(nullptr, nullptr, &node);
  DLL_Insert(&list, nullptr, nullptr);
  DLL_Insert_In_Middle(&list, &list.head, nullptr, &list.head);
  DLL_FreeAll(nullptr, wreck);
  EXPECT_TRUE(list.count == 0 && list.head.next == &list.head && node.next == nullptr);
  DllNode stray{&node, &node};  // its neighbours do not know it
  DLL_Delete(&list, &stray);
  EXPECT_EQ(list.count, 0U);
}

TEST(LinkedLists, PreviousIsTheNodeBeforeOrTheLastForNull) {
  SllList list{};
  Singly::clear(list);
  EXPECT_EQ(SLL_Previous(&list, nullptr), nullptr);
  std::array<SllNode, 4> nodes{};
  EXPECT_EQ(SLL_Previous(&list, nodes.data()), nullptr);
  for (int i = 0; i < 3; ++i) {
    SLL_Insert(&list, list.tail, &nodes[i]);
  }
  EXPECT_EQ(SLL_Previous(&list, nullptr), &nodes[2]);
  EXPECT_EQ(SLL_Previous(&list, &nodes[0]), nullptr);
  EXPECT_EQ(SLL_Previous(&list, &nodes[2]), &nodes[1]);
  EXPECT_EQ(SLL_Previous(&list, &nodes[3]), nullptr);
}

}  // namespace
