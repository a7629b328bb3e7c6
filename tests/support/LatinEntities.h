/// @file LatinEntities.h
/// The entities that the escaping of texts is held against.
#ifndef LATIN_ENTITIES_H
#define LATIN_ENTITIES_H

namespace test {

/// The names of the characters from 161 on, one a character; 173, which has two, under the second.
constexpr const char* kLatinEntities[] = {
    "iexcl",  "cent",   "pound",  "curren", "yen",    "brvbar", "sect",   "uml",    "copy",   "ordf",   "laquo",
    "not",    "mdash",  "reg",    "macr",   "deg",    "plusmn", "sup2",   "sup3",   "acute",  "micro",  "para",
    "middot", "cedil",  "sup1",   "ordm",   "raquo",  "frac14", "frac12", "frac34", "iquest", "Agrave", "Aacute",
    "Acirc",  "Atilde", "Auml",   "Aring",  "AElig",  "Ccedil", "Egrave", "Eacute", "Ecirc",  "Euml",   "Igrave",
    "Iacute", "Icirc",  "Iuml",   "ETH",    "Ntilde", "Ograve", "Oacute", "Ocirc",  "Otilde", "Ouml",   "times",
    "Oslash", "Ugrave", "Uacute", "Ucirc",  "Uuml",   "Yacute", "THORN",  "szlig",  "agrave", "aacute", "acirc",
    "atilde", "auml",   "aring",  "aelig",  "ccedil", "egrave", "eacute", "ecirc",  "euml",   "igrave", "iacute",
    "icirc",  "iuml",   "eth",    "ntilde", "ograve", "oacute", "ocirc",  "otilde", "ouml",   "divide", "oslash",
    "ugrave", "uacute", "ucirc",  "uuml",   "yacute", "thorn",  "yuml",
};

} // namespace test

#endif // LATIN_ENTITIES_H
