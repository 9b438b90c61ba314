/* What the library looks up in others, which may be loaded at any time: a process guard that
   remembers what it was told and answers as it is told to, and a plug-in's repair function. */
int guard_answer = 0;
int guard_heartbeats = 0;
int guard_readies = 0;
int repair_runs = 0;

int bexlin_notify(int what) {
  guard_heartbeats += what == 0;
  guard_readies += what == 1;
  return guard_answer;
}

void RuloPluginCheckAndRepairDeadloop(void) { ++repair_runs; }
