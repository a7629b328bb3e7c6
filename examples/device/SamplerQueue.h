/// @file SamplerQueue.h
/// The queue that looks at the machine: a repeating timer, a sample, the history, a copy to whoever wants each sample.
#ifndef DEVICE_SAMPLER_QUEUE_H
#define DEVICE_SAMPLER_QUEUE_H

#include <tqos.h>

#include "History.h"
#include "Sample.h"

class SamplerQueue : public tq_MsgQ {
public:
    /// The history outlives the queue. hListener is the handle of the queue that is sent a DEVICE_SAMPLE each time.
    SamplerQueue(History& history, unsigned int periodMs, unsigned int hListener);
    ~SamplerQueue() override;

    void MessageHandler(MSG_COMMON* pMsg) override;

private:
    void StartSampling();
    void StopSampling();
    void TakeOne();
    void Publish(const Sample& sample);

    History& m_history;
    const unsigned int m_periodMs;
    const unsigned int m_hListener;
};

#endif // DEVICE_SAMPLER_QUEUE_H
