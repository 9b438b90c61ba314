#include "monitor_model.h"

#include <algorithm>
#include <csignal>

std::string told(const char* who, uint64_t threadId, uint32_t tid, uint32_t elapsed,
                 uint64_t more) {
  return line("%s: %llu %u %u %llu", who, static_cast<unsigned long long>(threadId), tid, elapsed,
              static_cast<unsigned long long>(more));
}

void MonitorModel::restart(Node& node, const Thresholds& seconds, int64_t now) {
  for (size_t i = 0; i < seconds.size(); ++i) {
    node.thresholdMs[i] = seconds[i] < 4294967 ? seconds[i] * 1000 : 0xFFFFFFFF;
  }
  node.since = now;
  node.level = 0;
}

uint32_t MonitorModel::refuse(uint32_t code, std::initializer_list<const char*> lines) {
  said.insert(said.end(), lines.begin(), lines.end());
  return code;
}

bool MonitorModel::areValid(const Thresholds& seconds) {
  const auto& [first, second, third] = seconds;
  if (first != 0 && first <= second && second <= third) {
    return true;
  }
  said.push_back(
      line("100 Frame task deadloop detect, threshold invalid. (first threshold = %u, "
           "second threshold = %u, third threshold = %u)",
           first, second, third));
  return false;
}

uint32_t MonitorModel::enter(const PretendedThread& thread, const Thresholds& seconds,
                             int64_t now) {
  if (!areValid(seconds)) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Set heartbeat param unsuccessfully, param invalid."});
  }
  auto node = std::find_if(nodes_.begin(), nodes_.end(),
                           [&](const Node& one) { return one.used && one.id == thread.id; });
  if (node != nodes_.end() && node->tid == thread.tid) {
    restart(*node, seconds, now);
    return QURN_OK;
  }
  if (node != nodes_.end()) {
    *node = {};  // of an ended thread
  }
  node = std::find_if(nodes_.begin(), nodes_.end(), [](const Node& one) { return !one.used; });
  if (node == nodes_.end()) {
    return refuse(QURN_FAILED,
                  {"100 Frame set monitor task info, monitor task out of bounds. (max = 64)",
                   "100 Set heartbeat param unsuccessfully, set param unsuccessfully."});
  }
  *node = Node{.used = true, .id = thread.id, .tid = thread.tid, .name = thread.name, .on = 1};
  restart(*node, seconds, now);
  return QURN_OK;
}

uint32_t MonitorModel::beat(const PretendedThread& thread, uint64_t slot, int64_t now) {
  if (slot >= nodes_.size()) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Frame task deadloop detect, handle invalid.",
                   "100 Send heartbeat unsuccessfully, input handle invalid."});
  }
  if (!nodes_[slot].used || nodes_[slot].id != thread.id) {
    return refuse(QURN_INVALID_ARGUMENT, {"100 Send heartbeat unsuccessfully, handle not match."});
  }
  nodes_[slot].since = now;
  return QURN_OK;
}

uint32_t MonitorModel::leave(const PretendedThread& thread, uint64_t slot) {
  if (slot >= nodes_.size()) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Frame task deadloop detect, handle invalid.",
                   "100 Stop heartbeat unsuccessfully, input handle invalid."});
  }
  if (!nodes_[slot].used || nodes_[slot].id != thread.id) {
    return refuse(QURN_FAILED, {"100 Frame remove monitor task info, handle not match.",
                                "100 Stop heartbeat unsuccessfully, monitor task not exist."});
  }
  nodes_[slot] = {};
  return QURN_OK;
}

uint32_t MonitorModel::setHook(uint64_t slot, bool hook) {
  if (slot >= nodes_.size()) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Frame task deadloop detect, handle invalid.",
                   "100 Register task deadloop hook, input handle invalid."});
  }
  if (!nodes_[slot].used) {
    return refuse(QURN_FAILED,
                  {"100 Register task deadloop hook, deadloop monitor node not exist."});
  }
  nodes_[slot].hook = hook;
  return QURN_OK;
}

uint32_t MonitorModel::setPolicy(uint64_t slot, uint32_t policy) {
  if (slot >= nodes_.size() || policy > 1) {
    return refuse(QURN_INVALID_ARGUMENT, {"100 Set deadloop exception policy, parameter invalid."});
  }
  if (!nodes_[slot].used) {
    return refuse(QURN_FAILED,
                  {"100 Set deadloop exception policy, deadloop monitor node not exist."});
  }
  nodes_[slot].policy = policy;
  return QURN_OK;
}

uint32_t MonitorModel::tune(const std::string& name, const Thresholds& seconds, int64_t now) {
  if (!areValid(seconds)) {
    return refuse(QURN_INVALID_ARGUMENT, {"100 Frame update inteval by name, param invalid."});
  }
  const auto node = std::find_if(nodes_.begin(), nodes_.end(),
                                 [&](const Node& one) { return one.used && one.name == name; });
  if (node == nodes_.end()) {
    return refuse(QURN_FAILED, {"100 Frame update inteval by name, task not found."});
  }
  restart(*node, seconds, now);
  return QURN_OK;
}

uint32_t MonitorModel::switchWatch(uint64_t slot, uint8_t on, int64_t now) {
  if (slot >= nodes_.size()) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Frame deadloop set detect switch, input handle invalid."});
  }
  Node& node = nodes_[slot];
  if (!node.used) {
    return refuse(QURN_FAILED, {"100 Frame deadloop set detect switch, task info not exist."});
  }
  if ((node.on != 0) != (on != 0)) {
    node.on = on;
    node.since = now;
  }
  return QURN_OK;
}

bool MonitorModel::isEnded(uint32_t tid, const std::vector<PretendedThread>& threads) {
  for (const PretendedThread& thread : threads) {
    if (thread.tid == tid && !thread.ended) {
      return false;
    }
  }
  said.push_back(line("100 Check thread exist, tid %u not exist.", tid));
  return true;
}

bool MonitorModel::isReleased(Node& node, const std::vector<PretendedThread>& threads) {
  if (!isEnded(node.tid, threads)) {
    return false;
  }
  said.push_back(
      line("40 Task deadloop entry, task[%s:%u] terminated.", node.name.c_str(), node.tid));
  node = {};
  return true;
}

// A thread that was to be captured and is there no more sets the monitor free again.
void MonitorModel::withdraw(const std::vector<PretendedThread>& threads) {
  Node& node = nodes_[fatalSlot_];
  const bool same = node.used && node.tid == signalledTid_;
  if (same ? isReleased(node, threads) : isEnded(signalledTid_, threads)) {
    state_ = State::kIdle;
  }
}

// True when the third threshold ends the pass.
bool MonitorModel::climb(uint64_t slot, const std::vector<PretendedThread>& threads,
                         uint32_t elapsed) {
  struct Step {
    const char* level;
    const char* ordinal;
  };
  static constexpr Step kSteps[] = {{"40", "first"}, {"80", "second"}, {"100", "third"}};
  Node& node = nodes_[slot];
  for (unsigned step = 0; step < 3; ++step) {
    if (node.level != step || elapsed < node.thresholdMs[step]) {
      continue;
    }
    if (isReleased(node, threads)) {
      return false;
    }
    said.push_back(
        line("%s Frame task deadloop detect, task [%s:%u] trigger %s threshold "
             "timeout.(elapsed time = %u, first threshold = %u, second threshold = %u, "
             "third threshold = %u)",
             kSteps[step].level, node.name.c_str(), node.tid, kSteps[step].ordinal, elapsed,
             node.thresholdMs[0], node.thresholdMs[1], node.thresholdMs[2]));
    node.level = step + 1;
    if (step == 1 && warningHook) {
      said.emplace_back("80 Frame task deadloop detect, global warn hook start.");
      said.push_back(told("warning", node.id, node.tid, elapsed, node.policy));
      said.emplace_back("80 Frame task deadloop detect, global warn hook end.");
    }
  }
  if (node.level != 3) {
    return false;
  }
  said.push_back(
      line("40 Signal %d send to thread %u.", SIGRTMIN + 2, static_cast<uint32_t>(node.id)));
  state_ = State::kSignalled;
  fatalSlot_ = slot;
  fatalElapsed_ = elapsed;
  signalledTid_ = node.tid;
  return true;
}

void MonitorModel::pass(const std::vector<PretendedThread>& threads, int64_t now) {
  if (state_ != State::kIdle) {
    if (state_ == State::kSignalled) {
      withdraw(threads);
    }
    return;
  }
  for (uint64_t slot = 0; slot < nodes_.size(); ++slot) {
    const Node& node = nodes_[slot];
    if (!node.used || node.on == 0 || node.level == 3) {
      continue;
    }
    const int64_t elapsed = now - node.since;
    if (elapsed < 0) {
      said.push_back(line("100 Task deadloop entry, task elapsed time error. (%d)",
                          static_cast<int>(elapsed)));
    } else if (climb(slot, threads, static_cast<uint32_t>(elapsed))) {
      return;
    }
  }
}

uint64_t MonitorModel::slotOf(uint64_t id) const {
  return static_cast<uint64_t>(
      std::find_if(nodes_.begin(), nodes_.end(),
                   [id](const Node& node) { return node.used && node.id == id; }) -
      nodes_.begin());
}

bool MonitorModel::reportIsDeadly() const {
  const Node& node = nodes_[fatalSlot_];
  return node.level == 3 && !node.hook;
}

void MonitorModel::report() {
  const Node node = nodes_[fatalSlot_];
  state_ = State::kIdle;
  if (node.level != 3) {
    return;
  }
  said.emplace_back("80 Frame task deadloop detect, deadloop process hook start.");
  said.push_back(told("hook", node.id, 0, fatalElapsed_, fatalSlot_));
  said.emplace_back("80 Frame task deadloop detect, deadloop process hook end.");
  if (processHook) {
    said.emplace_back("80 Frame task deadloop detect, deadloop process global hook start.");
    said.push_back(told("process", node.id, node.tid, fatalElapsed_, node.policy));
    said.emplace_back("80 Frame task deadloop detect, deadloop process global hook end.");
  }
}
