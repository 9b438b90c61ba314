// The handle table once more, as plain containers: what every call must answer, and what the
// table's record must then hold.
#pragma once

#include <qurnadapt/handle_table.h>

#include <array>
#include <deque>
#include <map>
#include <vector>

// What a table holds.
struct HandleTableState {
  struct Page {
    std::deque<uint32_t> freeList;
    std::array<uint64_t, NBB_SLOTS_PER_PAGE> pointers{};  // 0 in a free slot
    std::array<uint8_t, NBB_SLOTS_PER_PAGE> generations{};
    uint32_t used = 0;

    bool operator==(const Page&) const = default;
  };

  bool operator==(const HandleTableState&) const = default;

  std::map<uint32_t, Page> pages;  // in the order of the ring
  std::deque<uint32_t> vacant;     // entries of the page array
  std::deque<uint32_t> queue;      // free slots of the current page
  uint32_t current = 0;
  int32_t freeSlots = 0;
  int32_t freedBehind = 0;
};

// As the record of a set-up table has it. Without pages when links in it contradict each other.
HandleTableState stateOf(const NbbHndTbl& table);

// Does to a table what it does to the model, and compares every answer.
class TableBesideModel {
 public:
  enum class Operation { kCreate, kAssign, kModify, kDestroy, kValidate };

  // Sets the table up with these widths. Its allocations fail as failPages says.
  TableBesideModel(uint32_t generationBits, uint32_t pageBits, void (*failPages)(bool fail));

  // The choice picks a handle: nine times of ten one that was given out, else one made up of it.
  // It is validated afterwards. Returns whether both answered and count the same.
  bool operate(Operation operation, uint32_t choice, bool pagesFail);
  // Every list, slot and page is the same.
  [[nodiscard]] bool agree() const { return model_ == stateOf(table); }

  NbbHndTbl table{};

 private:
  struct Named {
    uint32_t page;
    uint32_t slot;
    uint32_t generation;
  };

  [[nodiscard]] uint32_t handleOf(const Named& named) const;
  [[nodiscard]] Named namedBy(uint32_t handle) const;
  [[nodiscard]] uint32_t anyHandle(uint32_t choice) const;
  bool addPage(uint32_t index);
  bool keepReserve();
  void occupy(const Named& free, uint64_t pointer);
  uint32_t create(uint64_t pointer);
  uint32_t assign(uint32_t handle, uint64_t pointer);
  uint64_t* find(uint32_t handle);  // null for one that is not valid
  void destroy(uint32_t handle);

  HandleTableState model_;
  uint32_t generationMask_;
  uint32_t pageBits_;
  void (*failPages_)(bool fail);
  bool pagesFail_ = false;
  std::vector<uint32_t> handles_;  // given out, some of them destroyed since
  uint64_t pointers_ = 0;
};
