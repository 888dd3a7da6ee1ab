#pragma once

#include <ostream>

#include "Options.h"
#include "Simulation.h"

namespace gainmapsim {

// The end-of-run table: one column per sensor and a total column.
void printReport(Report const& report, Options const& options, std::ostream& out);
// Nothing lost and every buffer check passed.
bool isClean(Report const& report);

}  // namespace gainmapsim
