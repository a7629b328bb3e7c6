/// @file tq_Dir_p.h
#ifndef TQ_DIR_P_H
#define TQ_DIR_P_H

#include "tq_Dir.h"

/// The configuration file. Set by tq_BaseInitialize() and never changed after, so it is read without a lock. The name
/// is relative: an application that keeps its file elsewhere changes the working directory before it starts the
/// library.
extern char psz_tqos_ini_file[512];

#endif // TQ_DIR_P_H
