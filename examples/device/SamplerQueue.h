/// @file SamplerQueue.h
/// The queue that looks at the machine: a repeating timer, a sample, the history, a copy to whoever wants each sample.
#ifndef DEVICE_SAMPLER_QUEUE_H
#define DEVICE_SAMPLER_QUEUE_H

#include <tqos.h>

#include "ConsoleQueue.h"
#include "History.h"
#include "Sample.h"

class SamplerQueue : public ConsoleQueue {
public:
    /// The history outlives the queue. hListener is the handle of the queue that is sent a DEVICE_SAMPLE each time.
    SamplerQueue(History& history, unsigned int periodMs, unsigned int hListener);
    ~SamplerQueue() override;

    void MessageHandler(MSG_COMMON* pMsg) override;

protected:
    std::string Summary(bool bDetail) override;

private:
    static const ConsoleCommand kCommands[];

    bool StartSampling();
    void StopSampling();
    bool TakeOne();
    void Publish(const Sample& sample);
    std::string NewestLine();

    std::string AnswerPeriod(std::string_view argument);
    std::string AnswerSample(std::string_view argument);
    std::string AnswerFail(std::string_view argument);
    std::string AnswerLeak(std::string_view argument);
    std::string AnswerHold(std::string_view argument);

    History& m_history;
    const unsigned int m_hListener;

    // This queue's own thread alone uses these.
    unsigned int m_periodMs;
    unsigned int m_taken = 0;
    unsigned int m_failed = 0;
    unsigned int m_toFail = 0; // so many samples are yet to fail, as somebody wished
    unsigned int m_toLeak = 0; // and to leak
};

#endif // DEVICE_SAMPLER_QUEUE_H
