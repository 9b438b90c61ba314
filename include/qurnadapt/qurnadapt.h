/* Everything that libqurnadapt offers. */
#ifndef QURNADAPT_QURNADAPT_H
#define QURNADAPT_QURNADAPT_H

#include <qurnadapt/api.h>
#include <qurnadapt/capture.h>
#include <qurnadapt/event_sets.h>
#include <qurnadapt/exception.h>
#include <qurnadapt/handle_table.h>
#include <qurnadapt/keep_alive.h>
#include <qurnadapt/legacy_fixed.h>
#include <qurnadapt/legacy_heart.h>
#include <qurnadapt/legacy_memory.h>
#include <qurnadapt/legacy_process.h>
#include <qurnadapt/legacy_time.h>
#include <qurnadapt/linked_lists.h>
#include <qurnadapt/maintenance.h>
#include <qurnadapt/monitor.h>
#include <qurnadapt/pointer_stack.h>
#include <qurnadapt/report.h>
#include <qurnadapt/sdk_sections.h>
#include <qurnadapt/systime.h>
#include <qurnadapt/timer.h>

#endif
