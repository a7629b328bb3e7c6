#include "Template.h"

#include <sstream>

#include "Check.h"
#include "KeyTable.h"

namespace tqini {

namespace {

constexpr size_t kWidth = 100; // of a remark

constexpr char kTemplateHead[] =
    R"(; tqos.ini: every setting of the library with its default. The library reads the file once, when it starts, from the
; working directory. Lines like this one are passed over: take the ";" off a key to change it. There are no comments
; behind a value.
)";

constexpr char kInstanceHead[] =
    R"(; Keys of one trace instance. NAME is the instance's name: the library's own is tqos.
)";

constexpr char kPageHead[] = R"(# tqos.ini

The library reads `tqos.ini` in the process's working directory once, when it starts; the section `[Telnet]` when the
console starts, and the keys of a trace instance when it is opened. Every key has a default, so it runs without the file.
An application may keep sections of its own in it, and read them with the calls of `tq_Dir.h`.

`tqini template` prints a file with every key to start from, `tqini check FILE` finds what the library would not see or
would take for something else. This page is `tqini template --markdown`.

## How it is read

- A header is `[Name]`: blanks may stand in front of it, none inside the brackets; what follows `]` does not matter. A key
  is `Name = value`, with or without blanks around the name and the value. The case of names does not matter.
- The first section of a name counts, and in it the first key of a name. A section ends at the next line that begins with
  `[`. Keys before the first header are never found.
- There are no comments: a line that is neither a header nor the key that is looked for is passed over. So a line that
  begins with `;` or `#` is a remark, but behind a value everything is part of the value. So are quotes.
- Lines end in LF or CR LF. They are read in pieces of 511 characters, each of which counts as a line.
- A number is decimal or begins with `0x`; its first 11 characters count, and text is 0. A switch is on with `yes`, `y`,
  `true` or `1`, and off with everything else. A key without a value is there: the default does not take its place.

## Keys

`N` stands for the number of a pool, `NAME` for the name of a trace instance: the library's own is `tqos`.
)";

constexpr char kFindingsHead[] = R"(
## What `tqini check` finds

    tqini check [--own SECTION[:KEY]]... [--json] FILE...

`--own` names a section of the application's own, or a key of its own in a section of the library's; it may be given
several times. Each finding is a line `FILE:LINE: MESSAGE`; with `--json` all of them are one array of objects with the
fields `file`, `line`, `kind`, `section`, `key`, `message` and, where something may have been meant, `suggestion`. The
status is 0 when there is nothing to say, 1 when there are findings, and 2 when a file cannot be read or the command line
is wrong.

| kind | meaning |
|---|---|
)";

/// The text in lines of no more than the width, each with the mark in front.
std::string Wrapped(const std::string& text, const std::string& mark) {
    std::istringstream words(text);
    std::string lines;
    std::string line = mark;
    for (std::string word; words >> word;) {
        if (line.size() + 1 + word.size() > kWidth) {
            lines += line + "\n";
            line = mark;
        }
        line += " " + word;
    }
    return lines + line + "\n";
}

bool IsOfInstance(const KeyRow& row) {
    return std::string(row.pszKey).compare(0, 5, "NAME_") == 0;
}

std::string Remark(const KeyRow& row) {
    std::string text = std::string(row.pszUnit) + ": " + row.pszMeaning;
    if (row.pszNeeds) {
        text += std::string(" Read only with ") + row.pszNeeds + ".";
    }
    if (row.pszDefaultFrom) {
        text += std::string(" Default: as ") + row.pszDefaultFrom + ".";
    }
    return Wrapped(text, ";");
}

std::string Default(const KeyRow& row) {
    if (row.pszDefaultFrom) {
        return std::string("as `") + row.pszDefaultFrom + "`";
    }
    return row.pszDefault[0] == '\0' ? "empty" : std::string("`") + row.pszDefault + "`";
}

std::string TableRow(const KeyRow& row) {
    std::string meaning = row.pszMeaning;
    if (row.pszNeeds) {
        meaning += std::string(" Read only with `") + row.pszNeeds + "`.";
    }
    return std::string("| `") + row.pszKey + "` | " + Default(row) + " | " + row.pszUnit + " | " + meaning + " |\n";
}

} // namespace

std::string IniTemplate() {
    std::string text = kTemplateHead;
    std::string section;
    bool bInstance = false;
    for (const KeyRow& row : KeyTable()) {
        if (section != row.pszSection) {
            section = row.pszSection;
            text += "\n[" + section + "]\n";
        }
        if (IsOfInstance(row) && !bInstance) {
            bInstance = true;
            text += std::string("\n") + kInstanceHead;
        }
        text += "\n" + Remark(row) + ";" + row.pszKey + "=" + row.pszDefault + "\n";
    }
    return text;
}

std::string MarkdownPage() {
    std::string text = kPageHead;
    std::string section;
    for (const KeyRow& row : KeyTable()) {
        if (section != row.pszSection) {
            section = row.pszSection;
            text += "\n### [" + section + "]\n\n| key | default | unit | meaning |\n|---|---|---|---|\n";
        }
        text += TableRow(row);
    }
    text += kFindingsHead;
    for (const FindingKind& row : FindingKinds()) {
        text += std::string("| `") + row.pszKind + "` | " + row.pszMeaning + " |\n";
    }
    return text;
}

} // namespace tqini
