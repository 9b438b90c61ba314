// The handle table once more, as plain containers: what every call must answer, and what the
// table's record must then hold.
#pragma once

#include <qurnadapt/handle_table.h>

#include <array>
#include <deque>
#include <map>
#include <string>
#include <vector>

class HandleTableModel {
 public:
  HandleTableModel(uint32_t generationBits, uint32_t pageBits);

  // The allocation of the next page fails.
  void failNextPage() { pageFails_ = true; }
  void pagesSucceed() { pageFails_ = false; }

  uint32_t create(void* pointer);
  uint32_t assign(uint32_t handle, void* pointer);
  void* validate(uint32_t handle);
  void modify(uint32_t handle, void* pointer);
  void destroy(uint32_t handle);

  // A handle of some page, mostly a low one, slot and generation.
  [[nodiscard]] uint32_t anyHandle(uint32_t choice) const;

  // "" when the table holds the same as the model. The thorough comparison looks at every slot.
  [[nodiscard]] std::string differenceFrom(const NbbHndTbl& table, bool thorough) const;

 private:
  struct Page {
    std::deque<uint32_t> freeList;
    std::array<void*, 256> pointers{};
    std::array<uint8_t, 256> generations{};
    uint32_t used = 0;
  };

  [[nodiscard]] uint32_t compose(uint32_t page, uint32_t slot, uint32_t generation) const;
  bool addPage(uint32_t index);
  bool keepReserve();
  void grabFreeSlots();
  Page* pageOf(uint32_t handle, uint32_t* slot);

  uint32_t generationMask_;
  uint32_t pageBits_;
  bool pageFails_ = false;
  std::deque<uint32_t> vacant_;
  std::map<uint32_t, Page> pages_;
  std::deque<uint32_t> queue_;
  uint32_t current_ = 0;
  int32_t freeSlots_ = 0;
  int32_t freedBehind_ = 0;
};

// Does to a table what it does to the model, and compares every answer.
class TableBesideModel {
 public:
  enum class Operation { kCreate, kAssign, kModify, kDestroy, kValidate };

  // The table is set up with these widths. Page allocations fail as failPages says.
  TableBesideModel(NbbHndTbl& table, uint32_t generationBits, uint32_t pageBits,
                   void (*failPages)(bool fail));

  // The choice picks a handle: nine times of ten one that was given out, else one made up of it.
  // Returns whether both answered the same.
  bool operate(Operation operation, uint32_t choice, bool pagesFail);
  [[nodiscard]] std::string difference(bool thorough) const {
    return model_.differenceFrom(table_, thorough);
  }

 private:
  bool give(uint32_t handle, uint32_t expected);
  bool apply(Operation operation, uint32_t choice, void* pointer);

  NbbHndTbl& table_;
  HandleTableModel model_;
  void (*failPages_)(bool fail);
  std::vector<uint32_t> handles_;  // given out, some of them destroyed since
  uint64_t pointers_ = 0;
};

// "" when the record of a set-up table agrees with itself: ring, lists and counts.
std::string inconsistencyOf(const NbbHndTbl& table);
