/// @file Template.h
/// The table of keys as a file to start from, and as the page that documents it.
#ifndef TQINI_TEMPLATE_H
#define TQINI_TEMPLATE_H

#include <string>

namespace tqini {

/// A tqos.ini with every key, each as a remark with its default: as it stands it changes nothing.
std::string IniTemplate();

std::string MarkdownPage();

} // namespace tqini

#endif // TQINI_TEMPLATE_H
