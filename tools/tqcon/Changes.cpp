#include "Changes.h"

#include <algorithm>

namespace tqcon {

namespace {

bool IsKey(const TableKeys& keys, const std::string& column) {
    return std::any_of(std::begin(keys.columns), std::end(keys.columns),
                       [&column](const char* pszKey) { return pszKey && column == pszKey; });
}

std::string IdentityOf(const TableKeys& keys, const Json& row) {
    std::string identity;
    for (const char* pszKey : keys.columns) {
        if (pszKey && row.contains(pszKey)) {
            identity += row[pszKey].dump() + "\n";
        }
    }
    return identity;
}

const Json* FindRow(const TableKeys& keys, const Json& rows, const std::string& identity) {
    for (const Json& row : rows) {
        if (IdentityOf(keys, row) == identity) {
            return &row;
        }
    }
    return nullptr;
}

Json ChangesOf(const TableKeys& keys, const Json& before, const Json& now) {
    Json changes = Json::object();
    for (const auto& [column, value] : now.items()) {
        if (!value.is_number() || IsKey(keys, column) || !before.contains(column) || !before[column].is_number()) {
            continue;
        }
        const long long change = value.get<long long>() - before[column].get<long long>();
        if (change != 0) {
            changes[column] = change;
        }
    }
    return changes;
}

// Text

constexpr const char* kAdded[] = {"change", "new"}; // no columns of the device's

bool IsColumn(const std::string& key) {
    return std::none_of(std::begin(kAdded), std::end(kAdded), [&key](const char* pszKey) { return key == pszKey; });
}

/// What stands in a column, in all its rows.
struct TextColumn {
    std::string name;
    std::vector<std::string> cells;
    bool bNumbers = true;
    size_t width = 0;
};

std::string CellOf(const Json& row, const std::string& column) {
    if (!row.contains(column) || row[column].is_null()) {
        return "";
    }
    const Json& value = row[column];
    std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    if (row.contains("change") && row["change"].contains(column)) {
        text += " " + Difference(row["change"][column].get<long long>());
    }
    return text;
}

/// The columns of all rows, each once, in the order in which they come up.
std::vector<TextColumn> ColumnsOf(const Json& rows) {
    std::vector<TextColumn> columns;
    for (const Json& row : rows) {
        for (const auto& [key, value] : row.items()) {
            const auto isIt = [&name = key](const TextColumn& column) { return column.name == name; };
            if (IsColumn(key) && std::none_of(columns.begin(), columns.end(), isIt)) {
                columns.push_back({key, {}, true, 0});
            }
        }
    }
    return columns;
}

void Fill(const Json& rows, TextColumn* pColumn) {
    pColumn->width = pColumn->name.size();
    for (const Json& row : rows) {
        pColumn->cells.push_back(CellOf(row, pColumn->name));
        pColumn->width = std::max(pColumn->width, pColumn->cells.back().size());
        pColumn->bNumbers = pColumn->bNumbers && (!row.contains(pColumn->name) || row[pColumn->name].is_number());
    }
}

std::string Aligned(const TextColumn& column, std::string cell) {
    cell.insert(column.bNumbers ? 0 : cell.size(), column.width - cell.size(), ' ');
    return cell;
}

std::string Line(const char* pszMark, const std::vector<TextColumn>& columns, size_t row, bool bHeading) {
    std::string line = pszMark;
    for (const TextColumn& column : columns) {
        line += " " + Aligned(column, bHeading ? column.name : column.cells[row]);
    }
    line.resize(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

} // namespace

std::string Difference(long long value) {
    return (value >= 0 ? "+" : "") + std::to_string(value);
}

Json AddChanges(const std::string& table, const Json& before, Json* pRows) {
    Json gone = Json::array();
    const TableKeys* const pKeys = KeysOf(table);
    if (!pKeys || before.is_null()) {
        return gone;
    }
    for (Json& row : *pRows) {
        const Json* const pBefore = FindRow(*pKeys, before, IdentityOf(*pKeys, row));
        if (pBefore) {
            row["change"] = ChangesOf(*pKeys, *pBefore, row);
        } else {
            row["new"] = true;
        }
    }
    for (const Json& row : before) {
        if (!FindRow(*pKeys, *pRows, IdentityOf(*pKeys, row))) {
            gone.push_back(row);
        }
    }
    return gone;
}

void SortRows(const std::string& column, Json* pRows) {
    const bool bDescending = !column.empty() && column[0] == '-';
    const std::string name = column.substr(bDescending ? 1 : 0);
    std::stable_sort(pRows->begin(), pRows->end(), [&](const Json& first, const Json& second) {
        if (!first.contains(name) || !second.contains(name)) {
            return first.contains(name) && !second.contains(name);
        }
        return bDescending ? second[name] < first[name] : first[name] < second[name];
    });
}

std::string TableText(const Json& rows, const Json& gone) {
    Json all = rows;
    all.insert(all.end(), gone.begin(), gone.end());
    std::vector<TextColumn> columns = ColumnsOf(all);
    for (TextColumn& column : columns) {
        Fill(all, &column);
    }
    std::string text = all.empty() ? "" : Line(" ", columns, 0, /*bHeading=*/true);
    for (size_t i = 0; i < all.size(); ++i) {
        const char* const pszMark = i >= rows.size() ? "-" : all[i].contains("new") ? "+" : " ";
        text += Line(pszMark, columns, i, /*bHeading=*/false);
    }
    return text;
}

} // namespace tqcon
