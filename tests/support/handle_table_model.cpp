#include "handle_table_model.h"

#include <algorithm>
#include <vector>

namespace {

const NbbHndPage& page(const NbbHndTbl& table, uint32_t index) {
  return *reinterpret_cast<const NbbHndPage*>(table.pageArray[index]);
}

// The slots of a page that are on the list from head.
std::vector<uint32_t> slotsFrom(const uint64_t* head, const NbbHndPage& of) {
  std::vector<uint32_t> slots;
  for (; head != nullptr && slots.size() <= 256; head = reinterpret_cast<const uint64_t*>(*head)) {
    slots.push_back(static_cast<uint32_t>(head - of.slots));
  }
  return slots;
}

std::vector<uint32_t> vacantEntries(const NbbHndTbl& table) {
  std::vector<uint32_t> entries;
  for (const uint64_t* entry = table.vacantHead; entry != nullptr && entries.size() <= 4096;
       entry = reinterpret_cast<const uint64_t*>(*entry)) {
    entries.push_back(static_cast<uint32_t>(entry - table.pageArray));
  }
  return entries;
}

// The ring from page 0 on; empty when its links disagree or do not ascend.
std::vector<uint32_t> ring(const NbbHndTbl& table) {
  std::vector<uint32_t> indexes{0};
  for (;;) {
    const auto next = static_cast<uint32_t>(page(table, indexes.back()).nextPage);
    if (static_cast<uint32_t>(page(table, next).prevPage) != indexes.back()) {
      return {};
    }
    if (next == 0) {
      return indexes;
    }
    if (next <= indexes.back()) {
      return {};
    }
    indexes.push_back(next);
  }
}

template <typename Left, typename Right>
bool same(const Left& left, const Right& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

}  // namespace

std::string inconsistencyOf(const NbbHndTbl& table) {
  const std::vector<uint32_t> indexes = ring(table);
  if (indexes.empty()) {
    return "the ring is broken";
  }
  int32_t free = 0;
  for (const uint32_t index : indexes) {
    const NbbHndPage& one = page(table, index);
    size_t listed = slotsFrom(one.freeList, one).size();
    if (index == static_cast<uint32_t>(table.currentPage)) {
      listed += slotsFrom(table.freeQueue, one).size();
    }
    free += static_cast<int32_t>(256 - one.usedCount);
    if (listed != 256 - one.usedCount) {
      return "page " + std::to_string(index) + " lists " + std::to_string(listed) + " free slots";
    }
  }
  const std::vector<uint32_t> vacant = vacantEntries(table);
  if (free != table.freeSlotCount || table.freeQueue == nullptr) {
    return "the free slots are miscounted, or the queue is empty";
  }
  if (vacant.size() + indexes.size() != static_cast<size_t>(table.pageCapacity) ||
      (!vacant.empty() && table.pageArray + vacant.back() != table.vacantTail)) {
    return "the vacant entries are wrong";
  }
  return "";
}

HandleTableModel::HandleTableModel(uint32_t generationBits, uint32_t pageBits)
    : generationMask_((1U << generationBits) - 1), pageBits_(pageBits) {
  for (uint32_t index = 0; index < std::min(1U << pageBits, 4096U); ++index) {
    vacant_.push_back(index);
  }
  for (int i = 0; i < 4; ++i) {
    addPage(vacant_.front());
  }
  queue_.swap(pages_[0].freeList);
}

uint32_t HandleTableModel::compose(uint32_t page, uint32_t slot, uint32_t generation) const {
  return page | slot << pageBits_ | generation << (pageBits_ + 8);
}

uint32_t HandleTableModel::anyHandle(uint32_t choice) const {
  const uint32_t pages = std::min(1U << pageBits_, choice % 6 == 0 ? 5000U : 20U);
  return compose((choice >> 16U) % pages, (choice >> 8U) % 256, choice & generationMask_);
}

bool HandleTableModel::addPage(uint32_t index) {
  vacant_.erase(std::find(vacant_.begin(), vacant_.end(), index));
  if (pageFails_) {
    vacant_.push_front(index);
    return false;
  }
  Page& added = pages_[index];
  for (uint32_t slot = 0; slot < 256; ++slot) {
    added.freeList.push_back(slot);
  }
  freeSlots_ += 256;
  freedBehind_ += index < current_ ? 256 : 0;
  return true;
}

bool HandleTableModel::keepReserve() {
  return freeSlots_ > 1024 || (!vacant_.empty() && addPage(vacant_.front()));
}

void HandleTableModel::grabFreeSlots() {
  if (!queue_.empty()) {
    return;
  }
  if (freedBehind_ > 1024) {
    freedBehind_ = 0;
    current_ = 0;
  }
  do {
    const auto next = pages_.upper_bound(current_);
    current_ = next == pages_.end() ? 0 : next->first;
    freedBehind_ = current_ == 0 ? 0 : freedBehind_;
  } while (pages_[current_].used == 256);
  queue_.swap(pages_[current_].freeList);
}

uint32_t HandleTableModel::create(void* pointer) {
  if (pointer == nullptr || !keepReserve()) {
    return 0;
  }
  Page& from = pages_[current_];
  const uint32_t slot = queue_.front();
  queue_.pop_front();
  --freeSlots_;
  ++from.used;
  from.pointers[slot] = pointer;
  from.generations[slot] = std::max<uint8_t>(from.generations[slot], 1);
  const uint32_t handle = compose(current_, slot, from.generations[slot]);
  grabFreeSlots();
  return handle;
}

HandleTableModel::Page* HandleTableModel::pageOf(uint32_t handle, uint32_t* slot) {
  *slot = (handle >> pageBits_) & 0xFF;
  const auto found = pages_.find(handle & ((1U << pageBits_) - 1));
  return found == pages_.end() ? nullptr : &found->second;
}

uint32_t HandleTableModel::assign(uint32_t handle, void* pointer) {
  const uint32_t index = handle & ((1U << pageBits_) - 1);
  if (handle == 0 || pointer == nullptr || index >= 4096 ||
      (pages_.count(index) == 0 ? !addPage(index) : !keepReserve())) {
    return 0;
  }
  uint32_t slot = 0;
  Page& to = *pageOf(handle, &slot);
  if (to.pointers[slot] != nullptr) {
    return 0;
  }
  for (auto* list : {&queue_, &to.freeList}) {
    if (list == &queue_ && index != current_) {
      continue;
    }
    if (const auto found = std::find(list->begin(), list->end(), slot); found != list->end()) {
      list->erase(found);
      break;
    }
  }
  ++to.used;
  --freeSlots_;
  freedBehind_ -= index <= current_ ? 1 : 0;
  to.pointers[slot] = pointer;
  to.generations[slot] = static_cast<uint8_t>((handle >> (pageBits_ + 8)) & generationMask_);
  grabFreeSlots();
  return handle;
}

void* HandleTableModel::validate(uint32_t handle) {
  uint32_t slot = 0;
  Page* in = pageOf(handle, &slot);
  const uint32_t generation = (handle >> (pageBits_ + 8)) & generationMask_;
  return in == nullptr || generation == 0 || in->generations[slot] != generation
             ? nullptr
             : in->pointers[slot];
}

void HandleTableModel::modify(uint32_t handle, void* pointer) {
  if (pointer != nullptr && validate(handle) != nullptr) {
    uint32_t slot = 0;
    pageOf(handle, &slot)->pointers[slot] = pointer;
  }
}

void HandleTableModel::destroy(uint32_t handle) {
  if (validate(handle) == nullptr) {
    return;
  }
  uint32_t slot = 0;
  Page& in = *pageOf(handle, &slot);
  const uint32_t index = handle & ((1U << pageBits_) - 1);
  in.pointers[slot] = nullptr;
  in.generations[slot] = static_cast<uint8_t>((in.generations[slot] + 1U) & generationMask_);
  in.generations[slot] = std::max<uint8_t>(in.generations[slot], 1);
  in.freeList.push_front(slot);
  --in.used;
  ++freeSlots_;
  freedBehind_ += index <= current_ ? 1 : 0;
  if (index != 0 && index != current_ && in.used == 0 && freeSlots_ > 2048) {
    pages_.erase(index);
    vacant_.push_back(index);
    freeSlots_ -= 256;
    freedBehind_ -= index < current_ ? 256 : 0;
  }
}

std::string HandleTableModel::differenceFrom(const NbbHndTbl& table, bool thorough) const {
  if (table.freeSlotCount != freeSlots_ || table.freedBehindCount != freedBehind_ ||
      static_cast<uint32_t>(table.currentPage) != current_) {
    return "counts or current page";
  }
  if (!thorough) {
    return "";
  }
  std::vector<uint32_t> indexes;
  for (const auto& [index, expected] : pages_) {
    indexes.push_back(index);
  }
  if (!same(ring(table), indexes) || !same(vacantEntries(table), vacant_) ||
      !same(slotsFrom(table.freeQueue, page(table, current_)), queue_)) {
    return "ring, vacant entries or free queue";
  }
  for (const auto& [index, expected] : pages_) {
    const NbbHndPage& actual = page(table, index);
    bool equal = actual.usedCount == expected.used &&
                 same(slotsFrom(actual.freeList, actual), expected.freeList);
    for (uint32_t slot = 0; slot < 256 && equal; ++slot) {
      equal = actual.generations[slot] == expected.generations[slot] &&
              (expected.pointers[slot] == nullptr ||
               actual.slots[slot] == reinterpret_cast<uint64_t>(expected.pointers[slot]));
    }
    if (!equal) {
      return "page " + std::to_string(index);
    }
  }
  return inconsistencyOf(table);
}

TableBesideModel::TableBesideModel(NbbHndTbl& table, uint32_t generationBits, uint32_t pageBits,
                                   void (*failPages)(bool fail))
    : table_(table), model_(generationBits, pageBits), failPages_(failPages) {}

bool TableBesideModel::operate(Operation operation, uint32_t choice, bool pagesFail) {
  pagesFail ? model_.failNextPage() : model_.pagesSucceed();
  failPages_(pagesFail);
  const bool same = apply(operation, choice, reinterpret_cast<void*>((++pointers_ << 4U) + 0x1000));
  failPages_(false);
  return same;
}

bool TableBesideModel::give(uint32_t handle, uint32_t expected) {
  if (handle != 0) {
    handles_.push_back(handle);
  }
  return handle == expected;
}

bool TableBesideModel::apply(Operation operation, uint32_t choice, void* pointer) {
  const size_t place = handles_.empty() ? 0 : (choice / 10) % handles_.size();
  const bool known = !handles_.empty() && choice % 10 != 0;
  const uint32_t handle = known ? handles_[place] : model_.anyHandle(choice / 10);
  switch (operation) {
    case Operation::kCreate:
      return give(nbb_create_handle_in_table(&table_, pointer), model_.create(pointer));
    case Operation::kAssign:
      return give(nbb_assign_handle_in_table(&table_, handle, pointer),
                  model_.assign(handle, pointer));
    case Operation::kModify:
      nbb_modify_handle_in_table(&table_, handle, pointer);
      model_.modify(handle, pointer);
      return true;
    case Operation::kDestroy:
      nbb_destroy_handle_in_table(&table_, handle);
      model_.destroy(handle);
      if (known && choice % 4 != 0) {
        std::swap(handles_[place], handles_.back());
        handles_.pop_back();
      }
      return true;
    case Operation::kValidate:
      break;
  }
  return nbb_validate_handle_in_table(&table_, handle) == model_.validate(handle);
}
