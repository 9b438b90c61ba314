// The system's journal, by its own protocol: a datagram a record, of fields that can be asked for.
#pragma once

#include "record.h"

namespace tov::log {

// Without a journal, standard error.
bool writeToJournal(const Record& record, int patienceMs) noexcept;

}  // namespace tov::log
