/// @file Colours.h
/// Colours, where a terminal shows them and nobody has asked for none.
#ifndef TQCON_COLOURS_H
#define TQCON_COLOURS_H

#include <string>

namespace tqcon {

enum class Colour { Heading, Name, Error };

/// Whether a descriptor is a terminal that is to have colours: NO_COLOR is not set or empty, and TERM is not "dumb".
bool HasColours(int fd);

/// A text in a colour.
std::string Coloured(Colour colour, const std::string& text);

/// An answer with its headings, its errors and the names of who answers in colours; the text is the same.
std::string Painted(const std::string& text);

} // namespace tqcon

#endif // TQCON_COLOURS_H
