// The handle table once more, as plain containers: what every call must answer, and what the
// table's record must then hold.
#pragma once

#include <qurnadapt/handle_table.h>

#include <array>
#include <deque>
#include <map>
#include <vector>

// Does to a table what it does to the model, and compares every answer.
class TableBesideModel {
 public:
  enum class Operation { kCreate, kAssign, kModify, kDestroy, kValidate };

  // Sets the table up with these widths. Its allocations fail as failPages says.
  TableBesideModel(uint32_t generationBits, uint32_t pageBits, void (*failPages)(bool fail));

  // The choice picks a handle: nine times of ten one that was given out, else one made up of it.
  // It is validated afterwards. Returns whether both answered and count the same.
  bool operate(Operation operation, uint32_t choice, bool pagesFail);

  NbbHndTbl table{};

 private:
  struct Page {
    std::deque<uint32_t> freeList;
    std::array<void*, NBB_SLOTS_PER_PAGE> pointers{};
    std::array<uint8_t, NBB_SLOTS_PER_PAGE> generations{};
    uint32_t used = 0;
  };
  struct Named {
    uint32_t page;
    uint32_t slot;
    uint32_t generation;
  };

  [[nodiscard]] uint32_t handleOf(const Named& named) const;
  [[nodiscard]] Named namedBy(uint32_t handle) const;
  bool addPage(uint32_t index);
  bool keepReserve();
  void occupy(const Named& free, void* pointer);
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
