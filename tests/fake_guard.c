/* A process guard that remembers what it was told and answers as it is told to. */
int guard_answer = 0;
int guard_heartbeats = 0;
int guard_readies = 0;

int bexlin_notify(int what) {
  guard_heartbeats += what == 0;
  guard_readies += what == 1;
  return guard_answer;
}
