#include "Check.h"

#include <algorithm>
#include <map>

#include "IniFile.h"
#include "KeyTable.h"
#include "Suggest.h"
#include "Value.h"

namespace tqini {

namespace {

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";

std::string InBrackets(const std::string& section) {
    return "[" + section + "]";
}

std::string LineText(unsigned int line) {
    return "line " + std::to_string(line);
}

/// Where in the file the reader is.
enum class Place {
    BeforeFirst,
    Library, ///< in a section of the library's
    Own,     ///< in one of the application's own
    Unknown, ///< in one of nobody's
    Unseen,  ///< in a second section of a name, or behind a header that is none
};

class Checker {
public:
    Checker(const std::string& path, const OwnNames& own) : m_path(path), m_own(own) {}

    std::vector<Finding> Run(const std::vector<Piece>& pieces) {
        for (size_t i = 0; i < pieces.size(); ++i) {
            CheckPiece(pieces[i]);
            CheckLength(pieces, i);
        }
        for (const SeenKey& key : m_seen) {
            CheckSeen(key);
        }
        std::stable_sort(m_findings.begin(), m_findings.end(),
                         [](const Finding& one, const Finding& other) { return one.line < other.line; });
        return std::move(m_findings);
    }

private:
    void Add(unsigned int line, const char* pszKind, const std::string& message, const std::string& key = "",
             const std::string& suggestion = "") {
        m_findings.push_back({line, pszKind, m_section, key, message, suggestion});
    }

    bool IsOwnSection(const std::string& section) const {
        return std::any_of(m_own.begin(), m_own.end(),
                           [&](const std::string& name) { return SameText(name, section); });
    }
    bool IsOwnKey(const std::string& section, const std::string& key) const {
        return IsOwnSection(section + ":" + key);
    }

    // Lines

    void CheckPiece(const Piece& piece) {
        if (piece.bHasZeroByte) {
            Add(piece.line, "zero-byte", "what follows the zero byte in this line is not seen");
        }
        if (piece.line == 1 && !piece.bContinues && piece.text.compare(0, 3, kByteOrderMark) == 0) {
            Add(1, "byte-order-mark", "the line begins with a byte order mark: it is taken for no header and no key");
            return;
        }
        const Parts parts = TakeApart(piece);
        switch (parts.kind) {
        case PieceKind::Header:
            EnterSection(piece, parts.name);
            break;
        case PieceKind::BrokenHeader:
            LeaveSection(piece.line, parts.name, "a header without \"]\"", "broken-header");
            break;
        case PieceKind::KeyValue:
            CheckKey(piece, parts);
            break;
        case PieceKind::Other:
            CheckOther(piece, parts.name);
            break;
        default:
            break;
        }
    }

    /// Says that a line is too long, where more of it follows than its end.
    void CheckLength(const std::vector<Piece>& pieces, size_t index) {
        const Piece& piece = pieces[index];
        const bool bMore = !piece.bEndsLine && index + 1 < pieces.size();
        if (bMore && !piece.bContinues && !WithoutBlanks(pieces[index + 1].text).empty()) {
            Add(piece.line, "line-cut",
                "the line has more than 511 characters: what follows counts as a line of its own");
        }
    }

    void CheckOther(const Piece& piece, const std::string& text) {
        if (!piece.bContinues) {
            Add(piece.line, "not-a-key", "neither a header nor a key, which would have a \"=\"; passed over", text);
        }
    }

    // Sections

    void EnterSection(const Piece& piece, const std::string& name) {
        const std::string bare = WithoutBlanks(name);
        if (bare != name) {
            LeaveSection(piece.line, bare, "a header with blanks inside its brackets", "header-blanks");
            return;
        }
        m_section = SectionText(name).empty() ? name : SectionText(name);
        const auto first = m_sections.emplace(LowerCase(name), piece.line);
        if (!first.second) {
            m_place = Place::Unseen;
            Add(piece.line, "duplicate-section",
                InBrackets(name) + " stands in " + LineText(first.first->second) +
                    " already: this one is never seen, and no key of it");
        } else if (!SectionText(name).empty()) {
            m_place = Place::Library;
        } else if (IsOwnSection(name)) {
            m_place = Place::Own;
        } else {
            m_place = Place::Unknown;
            Add(piece.line, "unknown-section", "the library has no section " + InBrackets(name), "",
                Nearest(name, Sections()));
        }
    }

    void LeaveSection(unsigned int line, const std::string& name, const char* pszWhat, const char* pszKind) {
        m_place = Place::Unseen;
        m_section = name;
        Add(line, pszKind, std::string(pszWhat) + " is that of no section, and ends the one before it", "",
            Nearest(name, Sections()));
    }

    // Keys

    void CheckKey(const Piece& piece, const Parts& parts) {
        if (m_place == Place::BeforeFirst && !piece.bContinues) {
            Add(piece.line, "key-before-section", "a key before the first section is never found", parts.name);
        }
        if (m_place != Place::Library && m_place != Place::Own) {
            return;
        }
        const KnownKey known = FindKeyRow(m_section, parts.name);
        const bool bOwn = m_place == Place::Own || IsOwnKey(m_section, parts.name);
        if (!known && !bOwn) {
            if (!piece.bContinues) {
                AddUnknownKey(piece.line, parts.name);
            }
            return;
        }
        const std::string id = LowerCase(m_section) + ":" + LowerCase(parts.name);
        const auto first = m_keys.emplace(id, piece.line);
        if (!first.second) {
            Add(piece.line, "duplicate-key",
                parts.name + " stands in " + LineText(first.first->second) + " already: this one is never seen",
                parts.name);
        } else if (known) {
            const std::string key = KeyText(*known.pRow, known.stem);
            m_seen.push_back({known.pRow, m_section, key, parts.value, piece.line});
        } else {
            CheckOwnValue(piece.line, parts);
        }
    }

    void AddUnknownKey(unsigned int line, const std::string& key) {
        for (const std::string& section : Sections()) {
            if (FindKeyRow(section, key) && !SameText(section, m_section)) {
                Add(line, "unknown-key",
                    InBrackets(m_section) + " has no key " + key + ", but has " + InBrackets(section), key);
                return;
            }
        }
        Add(line, "unknown-key", InBrackets(m_section) + " has no key " + key, key, NearestKey(key));
    }

    /// The keys of the section, those with a name in them as they would be with the name that stands in this one.
    std::string NearestKey(const std::string& key) const {
        const size_t underscore = key.rfind('_');
        const std::string name = underscore == std::string::npos ? "" : key.substr(0, underscore);
        const size_t digit = key.find_first_of("123456789");
        const std::string number = digit == std::string::npos ? "1" : std::to_string(atoi(key.c_str() + digit));
        std::vector<std::string> candidates;
        for (const KeyRow& row : KeyTable()) {
            const std::string text = row.pszKey;
            if (m_section == row.pszSection && (text.compare(0, 5, "NAME_") != 0 || !name.empty())) {
                candidates.push_back(KeyText(row, text.compare(0, 5, "NAME_") == 0 ? name : number));
            }
        }
        return Nearest(key, candidates);
    }

    /// What the application makes of its own values is its own matter; that there are no comments is not.
    void CheckOwnValue(unsigned int line, const Parts& parts) {
        const size_t comment = PlaceOfComment(parts.value);
        if (comment != std::string::npos) {
            Add(line, "trailing-comment", '"' + parts.value.substr(comment) + "\" is part of the value", parts.name);
        }
    }

    // Values

    void CheckSeen(const SeenKey& key) {
        m_section = key.section;
        for (const ValueFinding& found : CheckValue(key, m_path)) {
            Add(key.line, found.pszKind, key.key + ": " + found.message, key.key, found.suggestion);
        }
        for (std::string needed = NeededBy(*key.pRow); !needed.empty();) {
            const KeyRow& row = *FindKeyRow(key.section, needed).pRow;
            if (!IsOn(row, m_path)) {
                Add(key.line, "not-read", key.key + " is not read without " + needed, key.key);
                return;
            }
            needed = NeededBy(row);
        }
        CheckPoolNumber(key);
    }

    static std::string NeededBy(const KeyRow& row) { return row.pszNeeds ? row.pszNeeds : ""; }

    /// The pools end at the first number without a block size.
    void CheckPoolNumber(const SeenKey& key) {
        const KnownKey known = FindKeyRow(key.section, key.key);
        if (known.stem.empty() || std::string(known.pRow->pszKey).compare(0, 5, "PoolN") != 0) {
            return;
        }
        const KeyRow& sizes = *FindKeyRow("Memory", "Pool1BlockSize").pRow;
        const int most = std::stoi(known.stem);
        for (int number = 1; number <= most; ++number) {
            const SeenKey size = {&sizes, "Memory", KeyText(sizes, std::to_string(number)), "", 0};
            if (ReadsAs(size, m_path) == "reads as 0") {
                Add(key.line, "not-read", key.key + " is not read without " + size.key, key.key);
                return;
            }
        }
    }

    const std::string m_path;
    const OwnNames m_own;
    Place m_place = Place::BeforeFirst;
    std::string m_section;                          ///< the one that the reader is in
    std::map<std::string, unsigned int> m_sections; ///< where each was met first
    std::map<std::string, unsigned int> m_keys;     ///< likewise, "section:key"
    std::vector<SeenKey> m_seen;
    std::vector<Finding> m_findings;
};

} // namespace

const std::vector<FindingKind>& FindingKinds() {
    static const std::vector<FindingKind> kKinds = {
        {"unknown-section", "a section that neither the library reads nor `--own` names"},
        {"unknown-key", "likewise a key"},
        {"duplicate-section", "the first section of a name counts; a later one is never seen, nor any of its keys"},
        {"duplicate-key", "the first key of a name in its section counts"},
        {"key-before-section", "a key before the first header is never found"},
        {"header-blanks", "`[ Memory ]` is the header of no section, and ends the section before it"},
        {"broken-header", "a line that begins with `[` and has no `]` does the same"},
        {"not-a-key", "a line that is no header, has no `=`, and does not look like a remark"},
        {"trailing-comment", "there are no comments behind a value: what looks like one is part of it"},
        {"quoted-value", "quotes are part of the value"},
        {"value-cut", "of numbers and switches 11 characters count, of some texts less than a line"},
        {"line-cut", "a line is read in pieces of 511 characters, each of which counts as a line"},
        {"empty-value", "a key without a value is there: the default does not take its place"},
        {"not-a-number", "text reads as 0, or as the number that it begins with"},
        {"not-a-switch", "`yes`, `y`, `true` and `1` switch on; this is neither one of them nor a plain no"},
        {"not-a-level", "neither a level's name nor a number"},
        {"not-an-address", "a word of `AllowedViewers` that admits nobody"},
        {"out-of-range", "a number that the library holds to its limits"},
        {"alignment-replaced", "a `MemoryAlignment` above 128 becomes 4"},
        {"not-read", "a key that the library reads only where another one is on"},
        {"byte-order-mark", "an editor's mark in front of the first line hides it"},
        {"zero-byte", "a zero byte hides the rest of its line"},
    };
    return kKinds;
}

bool CheckFile(const std::string& path, const OwnNames& own, std::vector<Finding>* pFindings, std::string* pReason) {
    std::vector<Piece> pieces;
    if (!ReadIniFile(path, &pieces, pReason)) {
        return false;
    }
    *pFindings = Checker(path, own).Run(pieces);
    return true;
}

} // namespace tqini
