#include "SamplerQueue.h"

#include "DeviceMessages.h"
#include "DeviceTrace.h"

SamplerQueue::SamplerQueue(History& history, unsigned int periodMs, unsigned int hListener)
    : tq_MsgQ("Sampler", "samples the machine on a timer"), m_history(history), m_periodMs(periodMs),
      m_hListener(hListener) {}

SamplerQueue::~SamplerQueue() {
    // Ends the worker thread while this object is still whole: the base class would do it too late, when the handler
    // and the fields it uses are gone.
    Cleanup();
}

void SamplerQueue::MessageHandler(MSG_COMMON* pMsg) {
    switch (pMsg->command) {
    case MSG_CREATE: // the first message, on the queue's own thread
        StartSampling();
        break;
    case MSG_TIMER:
        TakeOne();
        break;
    case MSG_DESTROY: // the last one
        StopSampling();
        break;
    default:
        break;
    }
    tq_free(pMsg); // a handled message is ours, whoever made it
}

void SamplerQueue::StartSampling() {
    if (tq_TimerSet(GetHandle(), m_periodMs, /*instance=*/0, /*userparm=*/0, /*flags=*/0, TQ_TIMER_REPEATING, "Sample",
                    /*bAllowSkew=*/false) != 0) {
        tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_SEVERE, DEVICE_CAT_SAMPLER, true, "no timer: no samples\n");
    }
}

void SamplerQueue::StopSampling() {
    tq_TimerKill(GetHandle(), 0, 0, 0);
}

void SamplerQueue::TakeOne() {
    Sample sample;
    if (!TakeSample(&sample)) {
        tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_WARNING, DEVICE_CAT_SAMPLER, true, "a sample could not be taken\n");
        return;
    }
    m_history.Add(sample);
    Publish(sample);
}

void SamplerQueue::Publish(const Sample& sample) {
    // A message is one tracked block, header first. A send that succeeds gives it to the other queue, whose handler
    // frees it; after one that fails it is still ours.
    DEVICE_SAMPLE* pMessage = static_cast<DEVICE_SAMPLE*>(tq_calloc(1, sizeof(DEVICE_SAMPLE)));
    if (!pMessage) {
        return;
    }
    pMessage->msg.hSource = GetHandle();
    pMessage->msg.hDest = m_hListener;
    pMessage->msg.size = sizeof(DEVICE_SAMPLE);
    pMessage->msg.command = MSG_DEVICE_SAMPLE;
    pMessage->sample = sample;
    if (!tq_MsgSend(&pMessage->msg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM)) {
        tq_free(pMessage);
    }
}
