#include "DeviceTrace.h"

#include <tqos.h>

unsigned int ghDeviceTrace = 0;

void OpenDeviceTrace() {
    ghDeviceTrace = tq_TraceInitInstance("device");
    tq_TraceSetCategoryName(ghDeviceTrace, DEVICE_CAT_SAMPLER, "Sampler");
    tq_TraceSetCategoryName(ghDeviceTrace, DEVICE_CAT_SERVER, "Server");
    tq_TraceSetCategoryName(ghDeviceTrace, DEVICE_CAT_STATUS, "Status");
}

void CloseDeviceTrace() {
    tq_TraceTermInstance(ghDeviceTrace);
    ghDeviceTrace = 0;
}
