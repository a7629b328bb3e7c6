#include "SamplerQueue.h"

#include "DeviceMessages.h"
#include "DeviceTrace.h"
#include "Protocol.h"
#include "Settings.h"

namespace {

constexpr unsigned int kMaxToFail = 1000;
constexpr unsigned int kMaxToLeak = 1000;
constexpr unsigned int kMaxHoldMs = 60000;

} // namespace

const SamplerQueue::ConsoleCommand SamplerQueue::kCommands[] = {
    {"period", "[ms]", "shows how often a sample is taken, or changes it: 10 to 3600000",
     AnswerOf(&SamplerQueue::AnswerPeriod)},
    {"sample", nullptr, "takes one now", AnswerOf(&SamplerQueue::AnswerSample)},
    {"fail", "<samples>", "lets the next ones fail, up to 1000, as if /proc could not be read; 0 ends it",
     AnswerOf(&SamplerQueue::AnswerFail)},
    {"leak", "<samples>", "forgets a copy of each of the next ones, up to 1000, for a hunt; 0 ends it",
     AnswerOf(&SamplerQueue::AnswerLeak)},
    {"hold", "<ms>", "holds the lock of the kept samples, up to 60000 ms, for another hunt",
     AnswerOf(&SamplerQueue::AnswerHold)},
    {nullptr, nullptr, nullptr, nullptr},
};
static_assert(kLeastPeriodMs == 10 && kMostPeriodMs == 3600000 && kMaxToFail == 1000 && kMaxToLeak == 1000 &&
                  kMaxHoldMs == 60000,
              "the texts name them");

SamplerQueue::SamplerQueue(History& history, unsigned int periodMs, unsigned int hListener)
    : ConsoleQueue("Sampler", "samples the machine on a timer", kCommands), m_history(history), m_hListener(hListener),
      m_periodMs(periodMs) {}

SamplerQueue::~SamplerQueue() {
    // Ends the worker thread while this object is still whole: the base class would do it too late, when the handler
    // and the fields it uses are gone.
    Cleanup();
}

void SamplerQueue::MessageHandler(MSG_COMMON* pMsg) {
    if (AnswerConsole(pMsg)) {
        tq_free(pMsg);
        return;
    }
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

/// Again with another period: a timer with the same queue, instance, user value and flags is the same timer.
bool SamplerQueue::StartSampling() {
    if (tq_TimerSet(GetHandle(), m_periodMs, /*instance=*/0, /*userparm=*/0, /*flags=*/0, TQ_TIMER_REPEATING, "Sample",
                    /*bAllowSkew=*/false) != 0) {
        tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_SEVERE, DEVICE_CAT_SAMPLER, true, "no timer: no samples\n");
        return false;
    }
    return true;
}

void SamplerQueue::StopSampling() {
    tq_TimerKill(GetHandle(), 0, 0, 0);
}

bool SamplerQueue::TakeOne() {
    Sample sample;
    const bool bToFail = m_toFail > 0;
    m_toFail -= bToFail ? 1 : 0;
    if (bToFail || !TakeSample(&sample)) {
        ++m_failed;
        tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_WARNING, DEVICE_CAT_SAMPLER, true, "a sample could not be taken\n");
        return false;
    }
    ++m_taken;
    m_history.Add(sample);
    if (m_toLeak > 0) {
        --m_toLeak;
        static_cast<void>(tq_newObject<Sample>(sample)); // the leak that somebody wished for: nobody frees this one
    }
    Publish(sample);
    return true;
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

std::string SamplerQueue::NewestLine() {
    const std::vector<Sample> samples = m_history.Newest(1);
    return samples.empty() ? "there is no sample yet" : WithoutLineEnd(SampleLine(samples.front()));
}

std::string SamplerQueue::Summary(bool bDetail) {
    std::string text = bDetail ? "Sampler: " : "";
    text += "one sample every " + std::to_string(m_periodMs) + " ms; " + std::to_string(m_taken) + " taken, " +
            std::to_string(m_failed) + " failed";
    if (bDetail) {
        text += "\r\n  kept: " + std::to_string(m_history.Count()) + " of " + std::to_string(m_history.Depth()) +
                "\r\n  yet to fail: " + std::to_string(m_toFail) + "\r\n  newest: " + NewestLine();
    }
    return text;
}

std::string SamplerQueue::AnswerPeriod(std::string_view argument) {
    if (!argument.empty()) {
        unsigned int periodMs;
        if (!ParseNumber(argument, kLeastPeriodMs, kMostPeriodMs, &periodMs)) {
            return "period takes 10 to 3600000 milliseconds";
        }
        m_periodMs = periodMs;
        if (!StartSampling()) {
            return "there is no timer: no samples are taken";
        }
        tq_Trace(ghDeviceTrace, TQ_TRACE_LEVEL_INFORMATIONAL, DEVICE_CAT_SAMPLER, true, "a sample every %u ms\n",
                 m_periodMs);
    }
    return "one sample every " + std::to_string(m_periodMs) + " ms";
}

std::string SamplerQueue::AnswerSample(std::string_view) {
    return TakeOne() ? NewestLine() : "the sample could not be taken";
}

std::string SamplerQueue::AnswerFail(std::string_view argument) {
    unsigned int count;
    if (!ParseNumber(argument, 0, kMaxToFail, &count)) {
        return "fail takes a number of samples, 0 to 1000";
    }
    m_toFail = count;
    return "samples yet to fail: " + std::to_string(m_toFail);
}

std::string SamplerQueue::AnswerLeak(std::string_view argument) {
    unsigned int count;
    if (!ParseNumber(argument, 0, kMaxToLeak, &count)) {
        return "leak takes a number of samples, 0 to 1000";
    }
    m_toLeak = count;
    return "samples yet to leak: " + std::to_string(m_toLeak);
}

std::string SamplerQueue::AnswerHold(std::string_view argument) {
    unsigned int ms;
    if (!ParseNumber(argument, 1, kMaxHoldMs, &ms)) {
        return "hold takes 1 to 60000 milliseconds";
    }
    m_history.Hold(ms);
    return "held for " + std::to_string(ms) + " ms";
}
