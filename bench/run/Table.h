/// @file Table.h
/// The results as text.
#ifndef BENCH_TABLE_H
#define BENCH_TABLE_H

#include "Results.h"

/// One subject: every contender with median, least and greatest, and what became of the targets.
void PrintOutcome(const Subject& subject, const Outcome& outcome);

/// All of them in one line each, and how many targets are met.
void PrintSummary(const Results& results);

/// The same as a table in Markdown.
/// @param before  earlier results; may be empty
void PrintMarkdown(const Results& results, const Results& before);

#endif // BENCH_TABLE_H
