#pragma once

// The statistics as text: a table of sessions and one of channel totals.

#include "statistics.h"

#include <cstdio>

// Writes the sessions of `channel` (every channel when negative), one line
// each, then the totals of each channel, as two tables with a header line
// and columns separated by blanks. Command names have their blanks and
// control characters shown as '?', so that every column is one word.
void top_print(FILE* out, const top_statistics_t& statistics, int channel);
