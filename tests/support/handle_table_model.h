// The handle table once more, as plain containers: what every call must answer, and what the
// table's record must then hold.
#pragma once

#include <qurnadapt/handle_table.h>

#include <array>
#include <deque>
#include <map>
#include <string>

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

  // A handle of any page, slot and generation.
  [[nodiscard]] uint32_t compose(uint32_t page, uint32_t slot, uint32_t generation) const;

  // "" when the table holds the same as the model. The thorough comparison looks at every slot.
  [[nodiscard]] std::string differenceFrom(const NbbHndTbl& table, bool thorough) const;

 private:
  struct Page {
    std::deque<uint32_t> freeList;
    std::array<void*, 256> pointers{};
    std::array<uint8_t, 256> generations{};
    uint32_t used = 0;
  };

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

// "" when the record of a set-up table agrees with itself: ring, lists and counts.
std::string inconsistencyOf(const NbbHndTbl& table);
