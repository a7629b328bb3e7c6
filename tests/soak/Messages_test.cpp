// Messages: eight senders and sixteen queues, three priorities, messages added at the head and messages that replace
// one another among them. None is lost, doubled, or out of order within its sender and priority.
#include <algorithm>
#include <stddef.h>
#include <string.h>

#include "Ledger.h"
#include "Soak.h"

namespace {

using namespace soak;
using namespace test;

constexpr unsigned int kSenders = 8;
constexpr unsigned int kQueues = 16;
constexpr unsigned int kPriorities = 3;
constexpr unsigned int kCredit = 256; ///< messages of a sender that are under way at most
constexpr unsigned int kReplacements = 4;
constexpr unsigned int kPayloadMost = 64;

/// How a message is put into its queue; each way is numbered by itself.
enum Way { kAtTail, kAtHead, kReplacing, kWays };

struct Parcel {
    MSG_COMMON msg; ///< command: MSG_USER + way * kSenders + sender; instance: priority; userparm: its number
    unsigned int bytes;
    unsigned char payload[1];
};

/// Messages of one sender and priority, in one queue.
struct Lane {
    InOrder atTail;
    OnceEach atHead;
    Ascending replacing;
};

class Receiver : public DeviceQueue {
public:
    Receiver() : DeviceQueue("Receiver") { Create(TQ_THREAD_PRIORITY_NORMAL); }
    ~Receiver() override { EndIdle(); }

    void SetCredit(tq_SemSemaphore* pCredit) { m_pCredit = pCredit; }
    /// To be asked when all has come.
    const Lane& TheLane(unsigned int sender, unsigned int priority) const { return m_lanes[sender][priority]; }
    unsigned int Damaged() const { return m_damaged; }

    std::atomic<unsigned long long> m_handled{0};

protected:
    bool Handle(MSG_COMMON* pMsg) override {
        const Parcel& parcel = *reinterpret_cast<const Parcel*>(pMsg);
        const unsigned int code = pMsg->command - MSG_USER;
        const unsigned int sender = code % kSenders;
        Lane& lane = m_lanes[sender][pMsg->instance];
        const unsigned char expected = static_cast<unsigned char>(pMsg->userparm);
        const bool bWhole = std::all_of(parcel.payload, parcel.payload + parcel.bytes,
                                        [expected](unsigned char byte) { return byte == expected; });
        m_damaged += bWhole && pMsg->size == offsetof(Parcel, payload) + parcel.bytes ? 0 : 1;
        switch (code / kSenders) {
        case kAtTail:
            lane.atTail.See(pMsg->userparm);
            break;
        case kAtHead:
            lane.atHead.See(pMsg->userparm);
            break;
        default:
            lane.replacing.See(pMsg->userparm);
            break;
        }
        ++m_handled;
        m_pCredit[sender].Release(1, nullptr);
        return false;
    }

private:
    Lane m_lanes[kSenders][kPriorities]; // by the queue's own thread
    unsigned int m_damaged = 0;
    tq_SemSemaphore* m_pCredit = nullptr; // before the first message
};

class MessageSoak : public Soak {
public:
    MessageSoak() {
        for (Receiver& receiver : m_receivers) {
            receiver.SetCredit(&m_credit[0]);
        }
        for (unsigned int sender = 0; sender < kSenders; ++sender) {
            m_workers.Add(PauseMs(), [this, sender] {
                for (unsigned int i = 0; i < 50; ++i) {
                    SendSome(sender);
                }
            });
        }
    }

    bool HasWorked() const override { return m_replaced > 0; }
    unsigned long long Done() const override { return m_sent; }

    void Stop() override {
        m_workers.Stop();
        EXPECT_TRUE(WaitUntil([this] { return Settled() == m_sent; }, kHangSeconds)) << Settled() << " of " << m_sent;
        for (unsigned int queue = 0; queue < kQueues; ++queue) {
            EXPECT_TRUE(WaitUntil([&] { return m_receivers[queue].GetQueueDepth(0) == 0; }, kHangSeconds));
            EXPECT_EQ(0u, m_receivers[queue].Damaged());
            for (unsigned int sender = 0; sender < kSenders; ++sender) {
                CheckLanes(sender, queue);
            }
        }
    }

    std::string Account() const override {
        return std::to_string(m_sent) + " messages, of which " + std::to_string(m_replaced) + " were replaced";
    }

private:
    struct Counters { // each by its sender
        unsigned int sent[kWays] = {};
        Ascending replaced;
    };

    unsigned long long Settled() const {
        unsigned long long settled = m_replaced;
        for (const Receiver& receiver : m_receivers) {
            settled += receiver.m_handled;
        }
        return settled;
    }

    void CheckLanes(unsigned int sender, unsigned int queue) {
        for (unsigned int priority = 0; priority < kPriorities; ++priority) {
            const Lane& lane = m_receivers[queue].TheLane(sender, priority);
            const Counters& counters = m_counters[sender][queue][priority];
            EXPECT_TRUE(lane.atTail.IsComplete(counters.sent[kAtTail])) << sender << ' ' << queue << ' ' << priority;
            EXPECT_TRUE(lane.atHead.IsComplete(counters.sent[kAtHead])) << sender << ' ' << queue << ' ' << priority;
            EXPECT_TRUE(lane.replacing.IsCompleteWith(counters.replaced, counters.sent[kReplacing]))
                << sender << ' ' << queue << ' ' << priority;
        }
    }

    static MSG_COMMON* NewParcel(unsigned int hDest, unsigned int code, unsigned int priority, unsigned int number) {
        const unsigned int bytes = Random(kPayloadMost);
        const unsigned int size = static_cast<unsigned int>(offsetof(Parcel, payload)) + bytes;
        Parcel* const pParcel = static_cast<Parcel*>(tq_malloc(size));
        pParcel->msg = {0, hDest, size, MSG_USER + code, priority, number, 0};
        pParcel->bytes = bytes;
        memset(pParcel->payload, static_cast<int>(number & 0xFF), bytes);
        return &pParcel->msg;
    }

    /// Most go to the tail; one in ten to the head, and one in ten is the first of several that replace one another.
    void SendSome(unsigned int sender) {
        const unsigned int choice = Random(10);
        const unsigned int queue = Random(kQueues);
        const unsigned int priority = Random(kPriorities);
        if (choice != 1) {
            SendOne(sender, choice == 0 ? kAtHead : kAtTail, queue, priority);
            return;
        }
        for (unsigned int i = 0; i < kReplacements; ++i) {
            SendOne(sender, kReplacing, queue, priority);
        }
    }

    void SendOne(unsigned int sender, Way way, unsigned int queue, unsigned int priority) {
        EXPECT_EQ(1, m_credit[sender].WaitForSem(4 * kHangMs));
        Counters& counters = m_counters[sender][queue][priority];
        Receiver& receiver = m_receivers[queue];
        const int iPriority = static_cast<int>(priority) + 1;
        MSG_COMMON* const pMsg =
            NewParcel(receiver.GetHandle(), way * kSenders + sender, priority, ++counters.sent[way]);
        ++m_sent;
        if (way == kReplacing) {
            TakeBack(receiver, pMsg, iPriority, counters.replaced, sender);
        } else if (Random(2) != 0) {
            EXPECT_TRUE(tq_MsgSend(pMsg, way == kAtHead, iPriority));
        } else {
            EXPECT_TRUE(receiver.Send(pMsg, way == kAtHead, iPriority));
        }
    }

    void TakeBack(Receiver& receiver, MSG_COMMON* pMsg, int iPriority, Ascending& replaced, unsigned int sender) {
        MSG_COMMON* const pReplaced = Random(2) != 0 ? receiver.ReplaceMsgFromHead(pMsg, iPriority, true)
                                                     : receiver.ReplaceMsgFromTail(pMsg, iPriority, true);
        if (pReplaced) {
            replaced.See(pReplaced->userparm);
            tq_free(pReplaced);
            ++m_replaced;
            m_credit[sender].Release(1, nullptr);
        }
    }

    struct Credit : tq_SemSemaphore {
        Credit() : tq_SemSemaphore(kCredit, kCredit) {}
    };

    Credit m_credit[kSenders];
    Counters m_counters[kSenders][kQueues][kPriorities];
    std::atomic<unsigned long long> m_sent{0};
    std::atomic<unsigned long long> m_replaced{0};
    Receiver m_receivers[kQueues];
    Workers m_workers;
};

TEST(Soak, NoMessageIsLostDoubledOrOutOfOrder) {
    RunSoak<MessageSoak>({"messages", "[MsgQ]\nDefaultHistory=20\n", nullptr});
}

} // namespace
