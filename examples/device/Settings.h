/// @file Settings.h
/// What tqos.ini says about the device, in its section [Device].
#ifndef DEVICE_SETTINGS_H
#define DEVICE_SETTINGS_H

struct Settings {
    unsigned int port;           ///< of the line protocol; 0: any free one
    unsigned int statusPort;     ///< where status datagrams go; 0: none are sent
    unsigned int samplePeriodMs; ///< 10 to an hour
    unsigned int historyDepth;   ///< samples kept, 1 to kMaxHistory
    char socketPath[100];        ///< of the local-domain socket; fits a socket address
};

/// Reads the section from tqos.ini in the working directory. What is missing has its default, what is out of range the
/// nearest value in it.
Settings ReadSettings();

#endif // DEVICE_SETTINGS_H
