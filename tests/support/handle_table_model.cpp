#include "handle_table_model.h"

#include <algorithm>
#include <numeric>

namespace {

const NbbHndPage& pageAt(const NbbHndTbl& table, int32_t index) {
  return *reinterpret_cast<const NbbHndPage*>(table.pageArray[index]);
}

// The words that are linked from this one on, counted from the first of all.
std::deque<uint32_t> listFrom(const uint64_t* word, const uint64_t* first) {
  std::deque<uint32_t> list;
  for (; word != nullptr && list.size() <= NBB_PAGES_MAX;
       word = reinterpret_cast<const uint64_t*>(*word)) {
    list.push_back(static_cast<uint32_t>(word - first));
  }
  return list;
}

// A free slot holds a link, not a pointer.
void forgetLinks(HandleTableState::Page& page, const std::deque<uint32_t>& freeSlots) {
  for (const uint32_t slot : freeSlots) {
    page.pointers.at(slot) = 0;
  }
}

}  // namespace

HandleTableState stateOf(const NbbHndTbl& table) {
  HandleTableState state;
  state.vacant = listFrom(table.vacantHead, table.pageArray);
  state.queue = listFrom(table.freeQueue, pageAt(table, table.currentPage).slots);
  state.current = static_cast<uint32_t>(table.currentPage);
  state.freeSlots = table.freeSlotCount;
  state.freedBehind = table.freedBehindCount;
  const uint64_t* last = state.vacant.empty() ? nullptr : table.pageArray + state.vacant.back();
  bool intact = table.vacantTail == last;
  int32_t index = 0;
  do {
    const NbbHndPage& page = pageAt(table, index);
    const int32_t next = page.nextPage;
    HandleTableState::Page& read = state.pages[static_cast<uint32_t>(index)];
    read = {listFrom(page.freeList, page.slots), std::to_array(page.slots),
            std::to_array(page.generations), page.usedCount};
    forgetLinks(read, read.freeList);
    intact = intact && pageAt(table, next).prevPage == index && (next > index || next == 0);
    index = next;
  } while (intact && index != 0);
  forgetLinks(state.pages[state.current], state.queue);
  return intact ? state : HandleTableState{};
}

TableBesideModel::TableBesideModel(uint32_t generationBits, uint32_t pageBits,
                                   void (*failPages)(bool fail))
    : generationMask_((1U << generationBits) - 1), pageBits_(pageBits), failPages_(failPages) {
  nbb_handle_table_initialize(&table, 24 - generationBits - pageBits, generationBits, 8, pageBits);
  model_.vacant.resize(std::min(1U << pageBits, NBB_PAGES_MAX));
  std::iota(model_.vacant.begin(), model_.vacant.end(), 0);
  for (uint32_t first = 0; first < 4; ++first) {
    addPage(first);
  }
  model_.queue.swap(model_.pages[0].freeList);
}

uint32_t TableBesideModel::handleOf(const Named& named) const {
  return named.page | named.slot << pageBits_ | named.generation << (pageBits_ + 8);
}

TableBesideModel::Named TableBesideModel::namedBy(uint32_t handle) const {
  return {handle & ((1U << pageBits_) - 1), (handle >> pageBits_) & 0xFF,
          (handle >> (pageBits_ + 8)) & generationMask_};
}

// Mostly of a low page.
uint32_t TableBesideModel::anyHandle(uint32_t choice) const {
  const uint32_t pages = std::min(1U << pageBits_, choice % 6 == 0 ? 5000U : 20U);
  return handleOf({(choice >> 16U) % pages, (choice >> 8U) % 256, choice & generationMask_});
}

bool TableBesideModel::addPage(uint32_t index) {
  std::erase(model_.vacant, index);
  if (pagesFail_) {
    model_.vacant.push_front(index);
    return false;
  }
  std::deque<uint32_t>& added = model_.pages[index].freeList;
  added.resize(NBB_SLOTS_PER_PAGE);
  std::iota(added.begin(), added.end(), 0);
  model_.freeSlots += 256;
  model_.freedBehind += index < model_.current ? 256 : 0;
  return true;
}

bool TableBesideModel::keepReserve() {
  return model_.freeSlots > 1024 || (!model_.vacant.empty() && addPage(model_.vacant.front()));
}

void TableBesideModel::occupy(const Named& free, uint64_t pointer) {
  auto& [pages, vacant, queue, current, freeSlots, freedBehind] = model_;
  HandleTableState::Page& page = pages[free.page];
  if (free.page == current) {
    std::erase(queue, free.slot);
  }
  std::erase(page.freeList, free.slot);
  page.pointers[free.slot] = pointer;
  page.generations[free.slot] = static_cast<uint8_t>(free.generation);
  ++page.used;
  --freeSlots;
  if (!queue.empty()) {
    return;
  }
  if (freedBehind > 1024) {
    freedBehind = 0;
    current = 0;
  }
  do {
    const auto next = pages.upper_bound(current);
    current = next == pages.end() ? 0 : next->first;
    freedBehind = current == 0 ? 0 : freedBehind;
  } while (pages[current].used == NBB_SLOTS_PER_PAGE);
  queue.swap(pages[current].freeList);
}

uint32_t TableBesideModel::create(uint64_t pointer) {
  if (!keepReserve()) {
    return 0;
  }
  const uint32_t slot = model_.queue.front();
  const uint32_t generation = model_.pages[model_.current].generations[slot];
  const Named free{model_.current, slot, std::max(generation, 1U)};
  occupy(free, pointer);
  return handleOf(free);
}

uint32_t TableBesideModel::assign(uint32_t handle, uint64_t pointer) {
  const Named free = namedBy(handle);
  if (handle == 0 || free.page >= NBB_PAGES_MAX ||
      !(model_.pages.contains(free.page) ? keepReserve() : addPage(free.page)) ||
      model_.pages[free.page].pointers[free.slot] != 0) {
    return 0;
  }
  model_.freedBehind -= free.page <= model_.current ? 1 : 0;
  occupy(free, pointer);
  return handle;
}

uint64_t* TableBesideModel::find(uint32_t handle) {
  const auto [index, slot, generation] = namedBy(handle);
  const auto page = model_.pages.find(index);
  if (page == model_.pages.end() || generation == 0 ||
      page->second.generations[slot] != generation || page->second.pointers[slot] == 0) {
    return nullptr;
  }
  return &page->second.pointers[slot];
}

void TableBesideModel::destroy(uint32_t handle) {
  uint64_t* pointer = find(handle);
  if (pointer == nullptr) {
    return;
  }
  *pointer = 0;
  const auto [index, slot, generation] = namedBy(handle);
  auto& [pages, vacant, queue, current, freeSlots, freedBehind] = model_;
  HandleTableState::Page& page = pages[index];
  page.generations[slot] = static_cast<uint8_t>(generation % generationMask_ + 1);
  page.freeList.push_front(slot);
  --page.used;
  ++freeSlots;
  freedBehind += index <= current ? 1 : 0;
  if (index != 0 && index != current && page.used == 0 && freeSlots > 2048) {
    pages.erase(index);
    vacant.push_back(index);
    freeSlots -= 256;
    freedBehind -= index < current ? 256 : 0;
  }
}

bool TableBesideModel::operate(Operation operation, uint32_t choice, bool pagesFail) {
  const size_t place = handles_.empty() ? 0 : (choice / 10) % handles_.size();
  const bool known = !handles_.empty() && choice % 10 != 0;
  const uint32_t handle = known ? handles_[place] : anyHandle(choice / 10);
  const uint64_t pointer = (++pointers_ << 4U) + 0x1000;
  auto* const given = reinterpret_cast<void*>(pointer);
  uint32_t answer = handle;
  uint32_t expected = handle;
  pagesFail_ = pagesFail;
  failPages_(pagesFail);
  if (operation == Operation::kCreate || operation == Operation::kAssign) {
    const bool any = operation == Operation::kCreate;
    answer = any ? nbb_create_handle_in_table(&table, given)
                 : nbb_assign_handle_in_table(&table, handle, given);
    expected = any ? create(pointer) : assign(handle, pointer);
    handles_.insert(handles_.end(), answer == 0 ? 0 : 1, answer);
  } else if (operation == Operation::kModify) {
    nbb_modify_handle_in_table(&table, handle, given);
    if (uint64_t* held = find(handle); held != nullptr) {
      *held = pointer;
    }
  } else if (operation == Operation::kDestroy) {
    nbb_destroy_handle_in_table(&table, handle);
    destroy(handle);
    if (known && choice % 4 != 0) {
      std::swap(handles_[place], handles_.back());
      handles_.pop_back();
    }
  }
  failPages_(false);
  const uint64_t* held = find(answer);
  return answer == expected &&
         nbb_validate_handle_in_table(&table, answer) ==
             (held == nullptr ? nullptr : reinterpret_cast<void*>(*held)) &&
         table.freeSlotCount == model_.freeSlots && table.freedBehindCount == model_.freedBehind &&
         table.currentPage == static_cast<int32_t>(model_.current);
}
