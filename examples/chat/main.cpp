// chat NAME [GROUP PORT]: says what is typed to everybody in a multicast group, and shows what they say, until standard
// input ends. The group is 239.255.42.99, port 5999, unless another is given; the system's routes choose the interface.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <tqos.h>

namespace {

enum { MSG_CHAT_SAY = MSG_USER };

/// A typed line on its way to the queue. The text follows the header in the same block.
struct CHAT_SAY {
    MSG_COMMON msg;
    char text[1];
};

struct Group {
    unsigned int address;
    unsigned int port;
};

class Chat : public tq_MsgQ {
public:
    Chat(const char* pszName, const Group& group)
        : tq_MsgQ("Chat", "talks to a multicast group"), m_name(pszName), m_group(group) {}
    ~Chat() override { Cleanup(); }

    /// Any thread. The message, a block of its own, is the queue's when it has been taken.
    void Say(const char* pszText) {
        const unsigned int size = static_cast<unsigned int>(sizeof(CHAT_SAY) + strlen(pszText));
        CHAT_SAY* pSay = static_cast<CHAT_SAY*>(tq_calloc(1, size));
        if (!pSay) {
            return;
        }
        pSay->msg.size = size;
        pSay->msg.command = MSG_CHAT_SAY;
        strcpy(pSay->text, pszText);
        if (!Send(&pSay->msg, /*bAddToHead=*/false, TQ_MSG_PRIORITY_MEDIUM)) {
            tq_free(pSay);
        }
    }

    void MessageHandler(MSG_COMMON* pMsg) override {
        switch (pMsg->command) {
        case MSG_CREATE:
            Join();
            break;
        case MSG_CHAT_SAY:
            SendLine(m_name + ": " + reinterpret_cast<const CHAT_SAY*>(pMsg)->text);
            break;
        case MSG_SOCKET_DATAGRAM:
            Show(*reinterpret_cast<const SOCKET_DATAGRAM*>(pMsg));
            break;
        case MSG_DESTROY:
            SendLine(m_name + " has gone");
            tq_SocketFlushAndClose(m_hSocket, TQ_SOCKET_FLUSH_OUT);
            break;
        default:
            break;
        }
        tq_free(pMsg);
    }

private:
    void Join() {
        m_hSocket = tq_SocketOpenMultiCast(GetHandle(), m_group.address, m_group.port, /*userparm=*/0, /*srcIP=*/0);
        tq_SocketSetName(m_hSocket, "Chat group");
        SendLine(m_name + " has come");
    }

    void SendLine(const std::string& line) {
        tq_SocketSendTo(m_hSocket, reinterpret_cast<const unsigned char*>(line.data()),
                        static_cast<unsigned int>(line.size()), /*destIP=*/0, m_group.port);
    }

    /// What arrives is anybody's: its length is what counts, and it is text only if it looks like it.
    static void Show(const SOCKET_DATAGRAM& datagram) {
        for (unsigned int i = 0; i < datagram.length; ++i) {
            const unsigned char c = datagram.data[i];
            putchar(c >= ' ' && c != 127 ? c : '?');
        }
        putchar('\n');
        fflush(stdout);
    }

    const std::string m_name;
    const Group m_group;
    unsigned int m_hSocket = 0;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        fprintf(stderr, "usage: chat NAME [GROUP PORT]\n");
        return 2;
    }
    const Group group = {tq_inet_addr(argc > 2 ? argv[2] : "239.255.42.99"),
                         argc > 3 ? static_cast<unsigned int>(atoi(argv[3])) : 5999};
    if (tqOS_Initialize() == 0) {
        Chat chat(argv[1], group);
        chat.Create(TQ_THREAD_PRIORITY_NORMAL);
        char line[512];
        while (fgets(line, sizeof(line), stdin)) {
            line[strcspn(line, "\n")] = 0;
            chat.Say(line);
        }
        chat.Destroy(/*bAddToHead=*/false); // what was typed last is said first
    }
    tqOS_Terminate(/*bDumpResources=*/false, /*bWaitForThreads=*/true);
    return 0;
}
