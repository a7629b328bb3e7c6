// Growing strings against std::string, one operation after the other.
//
// Input: a line with the first size; then operations, each a letter, its numbers (ended by one byte) and its text (to
// the end of the line).
#include "Fuzz.h"

namespace {

constexpr size_t kMostBytes = 20000; // of the text; operations that lengthen it stop there
constexpr unsigned int kMostSize = 5000;

/// A string of the library and what it must hold. The text may hold zero bytes.
struct Pair {
    TqString* s;
    std::string model;
};

unsigned int Size(const Pair& pair) {
    return static_cast<unsigned int>(pair.model.size());
}

bool Holds(const Pair& pair, unsigned int offset, unsigned int length) {
    return offset < pair.model.size() && length <= pair.model.size() - offset;
}

void Append(Pair& pair, fuzz::Input& input) {
    const std::string text = fuzz::Cut(input.Line());
    FUZZ_EQUAL(0, tq_string_append(pair.s, fuzz::Exact(text).Text()));
    pair.model += text;
}

void AppendPiece(Pair& pair, fuzz::Input& input) {
    const unsigned int most = input.Number();
    const std::string text = fuzz::Cut(input.Line());
    // Of a text that is not ended only the piece may be looked at.
    const std::vector<char> piece(text.begin(), text.end());
    const unsigned int length = most < text.size() ? most : static_cast<unsigned int>(text.size());
    FUZZ_EQUAL(0, tq_string_nappend(pair.s, length > 0 ? piece.data() : "", length));
    pair.model += text.substr(0, length);
}

void AppendItself(Pair& pair, fuzz::Input& input) {
    const unsigned int offset = pair.model.empty() ? 0 : input.Number() % Size(pair);
    const std::string piece = fuzz::Cut(pair.model.substr(offset));
    FUZZ_EQUAL(0, tq_string_append(pair.s, reinterpret_cast<const char*>(tq_string_ptr(pair.s, offset))));
    pair.model += piece;
}

void AppendNumber(Pair& pair, fuzz::Input& input) {
    const unsigned int number = input.Number();
    FUZZ_EQUAL(0, tq_string_appendInteger(pair.s, number));
    pair.model += std::to_string(number);
}

void Format(Pair& pair, fuzz::Input& input) {
    const int width = static_cast<int>(input.Number() % 70000);
    const std::string text = fuzz::Cut(input.Line());
    FUZZ_EQUAL(0, tq_string_sprintf(pair.s, "%*s|%s", width, text.c_str(), "end"));
    const std::string padding(static_cast<size_t>(width) > text.size() ? static_cast<size_t>(width) - text.size() : 0,
                              ' ');
    pair.model += (padding + text + "|end").substr(0, 65535);
}

void Replace(Pair& pair, fuzz::Input& input) {
    const unsigned int offset = input.Number();
    const unsigned int length = input.Number();
    const std::string text = fuzz::Cut(input.Line());
    const bool bHolds = Holds(pair, offset, length);
    const char* pszText = text == "-" ? nullptr : text.c_str();
    FUZZ_EQUAL(bHolds ? 0 : 1, tq_string_replace(pair.s, offset, length, pszText));
    if (bHolds) {
        pair.model.replace(offset, length, pszText ? text : "");
    }
}

void Insert(Pair& pair, fuzz::Input& input) {
    const unsigned int offset = input.Number();
    const std::string text = fuzz::Cut(input.Line());
    const bool bHolds = Holds(pair, offset, 0);
    FUZZ_EQUAL(bHolds ? 0 : 1, tq_string_insert(pair.s, offset, text.c_str()));
    if (bHolds) {
        pair.model.insert(offset, text);
    }
}

void Substring(Pair& pair, fuzz::Input& input) {
    const unsigned int offset = input.Number();
    const unsigned int length = input.Number();
    TqString* piece = tq_string_substring(pair.s, offset, length);
    FUZZ_EQUAL(Holds(pair, offset, length), piece != nullptr);
    if (piece) {
        FUZZ_EQUAL(pair.model.substr(offset, length),
                   std::string(reinterpret_cast<const char*>(piece->ptr), tq_string_length(piece)));
    }
    tq_string_destroy(piece);
}

void Find(Pair& pair, fuzz::Input& input) {
    const unsigned int offset = input.Number();
    const std::string text = fuzz::Cut(input.Line());
    const size_t found = offset < pair.model.size() ? pair.model.find(text, offset) : std::string::npos;
    FUZZ_EQUAL(found == std::string::npos ? -1 : static_cast<int>(found),
               tq_string_find(pair.s, fuzz::Exact(text).Text(), offset));
}

void GetLine(Pair& pair, fuzz::Input& input) {
    const unsigned int bytes = input.Number() % kMostSize;
    std::vector<char> line(bytes, 'x');
    const size_t end = pair.model.find("\r\n");
    const bool bFits = end != std::string::npos && end < bytes;
    FUZZ_EQUAL(bFits ? 0 : 1, tq_string_getline(pair.s, line.data(), bytes));
    if (bFits) {
        FUZZ_EQUAL(pair.model.substr(0, end) + std::string(1, '\0'), std::string(line.data(), end + 1));
        pair.model.erase(0, end + 2);
    }
}

void EndLine(Pair& pair, fuzz::Input&) {
    FUZZ_EQUAL(0, tq_string_append(pair.s, "\r\n"));
    pair.model += "\r\n";
}

void Lower(Pair& pair, fuzz::Input&) {
    FUZZ_EQUAL(0, tq_string_strlwr(pair.s));
    for (char& c : pair.model) {
        if (c == '\0') {
            break;
        }
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    }
}

void Reset(Pair& pair, fuzz::Input&) {
    FUZZ_EQUAL(0, tq_string_reset(pair.s));
    pair.model.clear();
}

/// Cuts tokens off the text: they stay in it, ended by zero bytes.
void Tokens(Pair& pair, fuzz::Input& input) {
    const unsigned int offset = input.Number();
    const std::string delimiters = fuzz::Cut(input.Line());
    size_t start = offset;
    bool bFirst = true;
    while (true) {
        const int found = tq_string_strtok(pair.s, delimiters.c_str(), bFirst ? offset : TQ_STRING_NEXT_TOKEN);
        std::string rest = start < pair.model.size() ? fuzz::Cut(pair.model.substr(start)) : "";
        if (rest.empty()) {
            FUZZ_EQUAL(-1, found);
            return;
        }
        const size_t skipped = bFirst ? rest.find_first_not_of(delimiters) : 0;
        start += skipped == std::string::npos ? rest.size() : skipped;
        FUZZ_EQUAL(static_cast<int>(start), found);
        rest = rest.substr(skipped == std::string::npos ? rest.size() : skipped);
        const size_t end = rest.find_first_of(delimiters);
        if (end != std::string::npos) {
            pair.model[start + end] = '\0';
        }
        start += end == std::string::npos ? rest.size() : end + 1;
        bFirst = false;
    }
}

struct Operation {
    char letter;
    void (*pfnDo)(Pair& pair, fuzz::Input& input);
    bool bLengthens;
};

constexpr Operation kOperations[] = {
    {'a', Append, true}, {'n', AppendPiece, true}, {'s', AppendItself, true}, {'d', AppendNumber, true},
    {'p', Format, true}, {'r', Replace, true},     {'i', Insert, true},       {'b', Substring, false},
    {'f', Find, false},  {'g', GetLine, false},    {'e', EndLine, true},      {'l', Lower, false},
    {'z', Reset, false}, {'t', Tokens, false},
};

void Check(const Pair& pair) {
    TqString* s = pair.s;
    FUZZ_EQUAL(pair.model.size(), tq_string_length(s));
    FUZZ_CHECK(pair.model.size() < s->sizeInBytes || pair.model.empty());
    FUZZ_EQUAL(s->sizeInBytes, s->bytesUsed + s->bytesFree);
    FUZZ_EQUAL(pair.model, std::string(reinterpret_cast<const char*>(s->ptr), s->bytesUsed));
    for (unsigned int i = s->bytesUsed; i < s->sizeInBytes; ++i) {
        FUZZ_EQUAL(0, s->ptr[i]); // zero-filled behind the text
    }
    FUZZ_EQUAL(atoi(pair.model.c_str()), tq_string_atoi(s));
    FUZZ_CHECK(!tq_string_ptr(s, s->bytesUsed + 1));
}

void OneInput(fuzz::Input input) {
    const unsigned int size = input.Number() % kMostSize;
    Pair pair = {tq_string_create(size), ""};
    FUZZ_CHECK(pair.s);
    FUZZ_EQUAL(size ? size : 1024, pair.s->sizeInBytes);
    while (!input.IsEmpty()) {
        const char letter = static_cast<char>(input.Byte());
        for (const Operation& row : kOperations) {
            if (row.letter == letter && (!row.bLengthens || pair.model.size() < kMostBytes)) {
                row.pfnDo(pair, input);
                Check(pair);
            }
        }
    }
    tq_string_destroy(pair.s);
}

} // namespace

FUZZ_TARGET("[Memory]\r\nEnableMemoryTracking=yes\r\n", OneInput)
