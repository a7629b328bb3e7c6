/// @file Settings.h
/// What tqos.ini says about the device, in its sections [Device] and [Telnet].
#ifndef DEVICE_SETTINGS_H
#define DEVICE_SETTINGS_H

enum { kLeastPeriodMs = 10, kMostPeriodMs = 3600000 }; ///< between samples

struct Settings {
    unsigned int port;           ///< of the line protocol; 0: any free one
    unsigned int statusPort;     ///< where status datagrams go; 0: none are sent
    unsigned int samplePeriodMs; ///< kLeastPeriodMs to kMostPeriodMs
    unsigned int historyDepth;   ///< samples kept, 1 to kMaxHistory
    char socketPath[100];        ///< of the local-domain socket; fits a socket address
    unsigned int consolePort;    ///< of the diagnostic console; 0: any free one
    char consolePassword[64];    ///< empty: whoever connects is logged in
};

/// Reads the sections from tqos.ini in the working directory. What is missing has its default, what is out of range the
/// nearest value in it, and of a longer text as much as fits.
Settings ReadSettings();

#endif // DEVICE_SETTINGS_H
