/// @file tq_Process_p.h
/// How a child process is rid of the descriptors it inherited. The child shares the parent's memory, so all of these
/// make system calls only: no allocation, no lock, no stream.
#ifndef TQ_PROCESS_P_H
#define TQ_PROCESS_P_H

#include "tq_Process.h"

/// Closes the descriptors from `first` to `last`, by the cheapest of the ways below that works here.
void tq_CloseDescriptors(unsigned int first, unsigned int last);

/// In one system call; false where the kernel has no such call.
bool tq_CloseDescriptorsByRange(unsigned int first, unsigned int last);
/// Those that the process's directory of descriptors lists; false when it cannot be read.
bool tq_CloseDescriptorsByDirectory(unsigned int first, unsigned int last);
/// One after the other. A limit of a billion descriptors is common; past the highest that a table of the kernel's usual
/// size has room for, nothing is tried.
void tq_CloseDescriptorsOneByOne(unsigned int first, unsigned int last);

#endif // TQ_PROCESS_P_H
