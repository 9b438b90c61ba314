// The handle table once more, as plain containers: what every call must answer, and how the table
// must then count.
#pragma once

#include <qurnadapt/handle_table.h>

#include <array>
#include <deque>
#include <map>
#include <vector>

// Does to a table what it does to the model, and compares every answer.
class TableBesideModel {
 public:
  enum Operation : uint32_t { kCreate, kAssign, kModify, kDestroy, kValidate };

  // Sets the table up with these widths. Its allocations fail as failPages says.
  TableBesideModel(uint32_t generationBits, uint32_t pageBits, void (*failPages)(bool fail));

  // The choice picks a handle: nine times of ten one that was given out, else one made up of it.
  // It is validated afterwards. Returns whether both answered and count the same.
  bool operate(uint32_t operation, uint32_t choice, bool pagesFail);

  NbbHndTbl table{};

 private:
  struct Page {
    std::deque<uint32_t> freeList;
    std::array<void*, NBB_SLOTS_PER_PAGE> pointers{};
    std::array<uint32_t, NBB_SLOTS_PER_PAGE> generations{};
  };

  [[nodiscard]] uint32_t pageOf(uint32_t handle) const { return handle % (1U << pageBits_); }
  [[nodiscard]] uint32_t slotOf(uint32_t handle) const { return (handle >> pageBits_) % 256; }
  [[nodiscard]] uint32_t generationOf(uint32_t handle) const {
    return (handle >> (pageBits_ + 8)) & generationMask_;
  }
  bool makeRoomFor(uint32_t index);
  void occupy(uint32_t handle, void* pointer);
  uint32_t create(void* pointer);
  uint32_t assign(uint32_t handle, void* pointer);
  void** find(uint32_t handle);  // null for one that is not valid
  void destroy(uint32_t handle);

  uint32_t generationMask_;
  uint32_t pageBits_;
  void (*failPages_)(bool fail);
  bool pagesFail_ = false;
  std::deque<uint32_t> vacant_;
  std::map<uint32_t, Page> pages_;
  std::deque<uint32_t> queue_;
  uint32_t current_ = 0;
  int32_t freeSlots_ = 0;
  int32_t freedBehind_ = 0;
  std::vector<uint32_t> handles_;  // given out, some of them destroyed since
  uint64_t pointers_ = 0;
};
