/// @file Merge.h
/// The records of several files in the order in which they happened.
#ifndef TQTRACE_MERGE_H
#define TQTRACE_MERGE_H

#include <string>
#include <vector>

#include "Record.h"

namespace tqtrace {

struct SourceRecords {
    std::string source;
    std::vector<Record> records;
};

struct MergedRecord {
    const std::string* pSource;
    const Record* pRecord;
};

/// What a file has in one order stays in it. Between files the milliseconds decide. Files whose dates say that their
/// milliseconds may count from the same moment are taken to be of one machine; others, and what was written before and
/// after a restart, are brought together by their dates, to a second. Where a file has no date at all, its milliseconds
/// are taken to count as those of the first file.
/// @param bDeltas  milliseconds are the time since the line before
/// The result points into the sources.
std::vector<MergedRecord> MergeByTime(const std::vector<SourceRecords>& sources, bool bDeltas);

} // namespace tqtrace

#endif // TQTRACE_MERGE_H
