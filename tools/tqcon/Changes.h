/// @file Changes.h
/// Tables over time: what has changed in a row since it was seen last, their order, and how they are written.
#ifndef TQCON_CHANGES_H
#define TQCON_CHANGES_H

#include "Reports.h"

namespace tqcon {

/// Adds to each row of a table what has changed since an earlier one: "change" has the differences of its numbers that
/// are not 0, and "new": true is in rows that were not there.
/// @param before  null: there is no earlier one, and nothing is added
/// @return the rows that have gone
Json AddChanges(const std::string& table, const Json& before, Json* pRows);

/// Sorts rows by a column, the least first; "-column" the greatest first. Rows without it come last. Rows that are
/// alike stay in their order.
void SortRows(const std::string& column, Json* pRows);

/// A number with its sign.
std::string Difference(long long value);

/// Rows as text: a column for each key of the first rows, numbers to the right with their changes behind them, "+"
/// before new rows and "-" before those that have gone.
std::string TableText(const Json& rows, const Json& gone);

} // namespace tqcon

#endif // TQCON_CHANGES_H
