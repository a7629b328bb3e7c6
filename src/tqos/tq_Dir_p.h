/// @file tq_Dir_p.h
#ifndef TQ_DIR_P_H
#define TQ_DIR_P_H

#include "tq_Dir.h"

extern char psz_tqos_ini_file[512]; ///< the configuration file; set by tq_BaseInitialize(), never changed after

#endif // TQ_DIR_P_H
