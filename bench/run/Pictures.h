/// @file Pictures.h
/// The results as pictures.
#ifndef BENCH_PICTURES_H
#define BENCH_PICTURES_H

#include "Results.h"

/// Draws one file, GROUP.svg, for each group of subjects ("queue" of "queue/one-producer"): of each subject a bar for
/// every contender, as long as it is fast; the best one has the whole length.
/// @return false when a file cannot be written
bool DrawPictures(const Results& results, const std::string& directory);

#endif // BENCH_PICTURES_H
