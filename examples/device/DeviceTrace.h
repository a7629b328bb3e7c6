/// @file DeviceTrace.h
/// The device's own trace instance "device": its level, files and rotation stand in tqos.ini.
#ifndef DEVICE_TRACE_H
#define DEVICE_TRACE_H

/// What a line is about; tqos.ini can ask for some of them with device_Cat.
enum { DEVICE_CAT_SAMPLER = 1, DEVICE_CAT_SERVER = 2, DEVICE_CAT_STATUS = 4 };

/// The instance's handle, for tq_Trace. Set before the first queue starts and cleared after the last has ended, so that
/// every thread between reads the same value.
extern unsigned int ghDeviceTrace;

/// Opens the instance and names its categories. Without it (no memory) the device runs and traces nothing.
void OpenDeviceTrace();
void CloseDeviceTrace();

#endif // DEVICE_TRACE_H
