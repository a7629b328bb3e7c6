/// @file DeviceMessages.h
/// The messages that the device's queues send each other, beside those of the library.
#ifndef DEVICE_MESSAGES_H
#define DEVICE_MESSAGES_H

#include <tqos.h>

#include "Sample.h"

enum {
    MSG_DEVICE_SAMPLE = MSG_USER + 1, ///< DEVICE_SAMPLE, from the sampler: a new sample
    MSG_DEVICE_READ_ON                ///< the server to itself: `instance` is a client's socket with bytes left to read
};

/// A message with a payload is one block, the header first.
struct DEVICE_SAMPLE {
    MSG_COMMON msg;
    Sample sample;
};

#endif // DEVICE_MESSAGES_H
