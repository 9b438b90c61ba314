/* A plug-in with a repair function that counts its runs. */
int repair_runs = 0;

void RuloPluginCheckAndRepairDeadloop(void) { ++repair_runs; }
