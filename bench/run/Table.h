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
void PrintMarkdown(const Results& results);

/// Three significant digits.
std::string NumberText(double value);

#endif // BENCH_TABLE_H
