// tqtrace on the network: what it makes of a device that is played by a plain socket, and the program beside the demo
// device, on a network of their own.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ConsoleClient.h"
#include "Followed.h"
#include "OwnNetwork.h"
#include "SocketPeers.h"
#include "TerminalProgram.h"
#include "Tools.h"

namespace {

using namespace tqtrace;
using test::ChildResult;
using test::ConsoleClient;
using test::DemoDevice;
using test::Fd;
using test::WaitUntil;

// ---- A device that is played

std::string Wire(const std::string& text) {
    return text + '\0';
}

/// The socket of a trace instance.
class PlayedDevice {
public:
    explicit PlayedDevice(const char* pszAddress = "127.0.0.1", unsigned int port = 0)
        : m_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        struct sockaddr_in address = test::LoopbackAddress(port);
        address.sin_addr.s_addr = inet_addr(pszAddress);
        EXPECT_EQ(0, bind(m_fd.Get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)));
        m_place = {ntohl(address.sin_addr.s_addr), static_cast<uint16_t>(test::PortOf(m_fd))};
    }

    Announcement Says() const { return {m_place, "127.0.0.1:a", "a", "02:00:00:00:00:01", "1.2"}; }
    const Endpoint& Place() const { return m_place; }

    /// The next request, with its terminator; "(nothing)" when none is there.
    std::string Next() {
        char buffer[100];
        socklen_t length = sizeof(m_viewer);
        const ssize_t bytes = recvfrom(m_fd.Get(), buffer, sizeof(buffer), MSG_DONTWAIT,
                                       reinterpret_cast<struct sockaddr*>(&m_viewer), &length);
        return bytes < 0 ? "(nothing)" : std::string(buffer, static_cast<size_t>(bytes));
    }
    /// How often this comes next.
    unsigned int CountNext(const std::string& text) {
        unsigned int count = 0;
        while (Next() == Wire(text)) {
            ++count;
        }
        return count;
    }
    /// To who has sent the last request.
    void Send(const std::string& bytes) const { SendTo(m_viewer, bytes); }
    void SendTo(const struct sockaddr_in& viewer, const std::string& bytes) const {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  sendto(m_fd.Get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const struct sockaddr*>(&viewer),
                         sizeof(viewer)));
    }
    const struct sockaddr_in& Viewer() const { return m_viewer; }
    void End() { m_fd.Close(); }

private:
    Fd m_fd;
    Endpoint m_place;
    struct sockaddr_in m_viewer = {};
};

/// A place as the command line names it.
std::string Named(const Endpoint& place) {
    return place.Address() + ":" + std::to_string(place.port);
}

/// Nothing is done because time has passed.
Followed::Times Patient() {
    Followed::Times times;
    times.askAgain = times.decide = times.noAnswer = times.silent = std::chrono::hours(1);
    return times;
}

/// Asks often, and decides soon.
Followed::Times Eager() {
    Followed::Times times = Patient();
    times.askAgain = times.decide = std::chrono::milliseconds(20);
    return times;
}

/// Somebody who follows it, and what was said of it: "kind" of events, "<line>" of lines.
class Follower {
public:
    explicit Follower(const Announcement& announcement, const Followed::Times& times = Patient(),
                      int bufferBytes = 1 << 20)
        : m_followed(announcement,
                     {[this](const Followed&, const std::string& line, bool bCut) {
                          m_said += " <" + ParseRecord(line).message + (bCut ? " cut>" : ">");
                      },
                      [this](const Followed&, const Event& event) {
                          m_said += " " + event.kind;
                          m_text = event.text;
                          m_lost += event.kind == "lost" ? event.numbers.at("datagrams") : 0;
                      }},
                     times) {
        std::string problem;
        EXPECT_TRUE(m_followed.Start(bufferBytes, &problem)) << problem;
    }

    Followed& operator*() { return m_followed; }
    Followed* operator->() { return &m_followed; }

    /// Takes what comes until this was said.
    void ExpectSaid(const std::string& said) {
        EXPECT_TRUE(WaitUntil([&] {
            Turn();
            return m_said.size() >= said.size();
        })) << m_said;
        EXPECT_EQ(said, m_said) << m_text;
    }
    void Turn() {
        m_followed.OnReadable();
        m_followed.OnTick();
    }
    const std::string& Text() const { return m_text; }
    uint64_t Lost() const { return m_lost; }
    const std::string& Said() const { return m_said; }

private:
    std::string m_said;
    std::string m_text; ///< of the last event
    uint64_t m_lost = 0;
    Followed m_followed;
};

const std::string kLine = Wire("[1]: (a) INF: x\n");

TEST(TqtraceFollowed, SubscribesAnswersProbesAndUnsubscribes) {
    PlayedDevice device;
    Follower follower(device.Says());
    EXPECT_EQ(Wire("TRACEON/"), device.Next());
    device.Send(Wire("KEEPALIVE/"));
    EXPECT_TRUE(WaitUntil([&] {
        follower.Turn();
        return device.Next() == Wire("KEEPALIVE/");
    }));
    device.Send(kLine);
    device.Send(Wire("[2]: (a) INF: " + std::string(1009, 'y')));
    follower.ExpectSaid(" following <x> <" + std::string(1009, 'y') + " cut>");
    follower->End();
    EXPECT_EQ(Wire("TRACEOFF/"), device.Next());
    EXPECT_EQ("(nothing)", device.Next());
}

TEST(TqtraceFollowed, SubscribesAnewNowAndThenAndWithEachAnnouncement) {
    PlayedDevice device;
    Follower follower(device.Says(), Eager());
    unsigned int count = 0;
    EXPECT_TRUE(WaitUntil([&] {
        follower.Turn();
        count += device.CountNext("TRACEON/");
        return count >= 3;
    }));
    device.CountNext("TRACEON/");
    follower->OnAnnouncement(device.Says());
    EXPECT_EQ(Wire("TRACEON/"), device.Next());
}

TEST(TqtraceFollowed, SaysThatADeviceHasEndedAndThatItIsBack) {
    PlayedDevice device;
    Follower follower(device.Says(), Eager());
    const Endpoint place = device.Place();
    device.End();
    follower.ExpectSaid(" following gone");
    PlayedDevice again;
    follower->OnAnnouncement(again.Says());
    follower.ExpectSaid(" following gone restarted");
    EXPECT_EQ("restarted, now at " + again.Place().Text() + ", was at " + place.Text(), follower.Text());
    EXPECT_EQ(Wire("TRACEON/"), again.Next());
    again.Send(kLine);
    follower.ExpectSaid(" following gone restarted <x>");
    again.End();
    follower.ExpectSaid(" following gone restarted <x> gone");
    PlayedDevice elsewhere("127.0.0.2");
    follower->OnAnnouncement(elsewhere.Says());
    follower.ExpectSaid(" following gone restarted <x> gone moved");
}

TEST(TqtraceFollowed, SaysThatADeviceHasRestartedWhenOnlyItsNewPlaceTellsOfIt) {
    PlayedDevice device;
    Follower follower(device.Says());
    EXPECT_EQ(Wire("TRACEON/"), device.Next());
    device.End();
    PlayedDevice again;
    follower->OnAnnouncement(again.Says());
    EXPECT_EQ(Wire("TRACEON/"), again.Next()); // at once: nothing is lost meanwhile
    follower.ExpectSaid(" following restarted");
}

TEST(TqtraceFollowed, OnThePortThatItHadItHasRestartedToo) {
    RUN_IN_NETWORK([] { // where nobody else takes the port meanwhile
        PlayedDevice device;
        Follower follower(device.Says(), Eager());
        const Endpoint place = device.Place();
        device.End();
        follower.ExpectSaid(" following gone");
        PlayedDevice again("127.0.0.1", place.port);
        follower->OnAnnouncement(again.Says());
        follower.ExpectSaid(" following gone restarted");
    });
}

TEST(TqtraceFollowed, FollowsAChangeOfAddressAndLosesNoLineBeforeItIsAnnounced) {
    PlayedDevice device;
    Follower follower(device.Says(), Eager());
    EXPECT_EQ(Wire("TRACEON/"), device.Next());
    PlayedDevice moved("127.0.0.2");
    moved.SendTo(device.Viewer(), kLine);
    follower.ExpectSaid(" following <x> moved");
    EXPECT_EQ("has changed its address, now at " + moved.Place().Text() + ", was at " + device.Place().Text(),
              follower.Text());
    follower->OnAnnouncement(moved.Says());
    moved.SendTo(device.Viewer(), kLine);
    follower.ExpectSaid(" following <x> moved <x>");
    EXPECT_LT(0u, moved.CountNext("TRACEON/"));
}

TEST(TqtraceFollowed, ASecondProgramOfTheSameNameIsFollowedBeside) {
    PlayedDevice device;
    Follower follower(device.Says(), Eager());
    EXPECT_EQ(Wire("TRACEON/"), device.Next());
    PlayedDevice second;
    follower->OnAnnouncement(second.Says());
    follower.ExpectSaid(" following following");
    EXPECT_EQ("another one of this name is followed, at " + second.Place().Text(), follower.Text());
    second.SendTo(device.Viewer(), kLine);
    device.Send(kLine);
    follower.ExpectSaid(" following following <x> <x>");
    device.End();
    follower.ExpectSaid(" following following <x> <x> gone");
}

TEST(TqtraceFollowed, OthersCannotSpeakForIt) {
    PlayedDevice device;
    Follower follower(device.Says());
    EXPECT_EQ(Wire("TRACEON/"), device.Next());
    PlayedDevice stranger;
    stranger.SendTo(device.Viewer(), Wire("[1]: (b) INF: not of this name"));
    stranger.SendTo(device.Viewer(), Wire("no line"));
    stranger.SendTo(device.Viewer(), Wire("KEEPALIVE/"));
    device.Send(kLine);
    follower.ExpectSaid(" following <x>");
    EXPECT_EQ("(nothing)", stranger.Next());
    Announcement other = device.Says();
    other.mac = "02:00:00:00:00:02";
    EXPECT_FALSE(follower->Is(other));
    other = device.Says();
    other.instance = "b";
    EXPECT_FALSE(follower->Is(other));
    EXPECT_TRUE(follower->Is(device.Says()));
}

TEST(TqtraceFollowed, SaysThatNothingComesAndThatItIsHeardAgain) {
    Followed::Times times = Patient();
    times.noAnswer = times.silent = std::chrono::milliseconds(100);
    PlayedDevice device;
    Follower follower(device.Says(), times);
    follower.ExpectSaid(" following silent");
    EXPECT_EQ("does not answer: it may have all the viewers it takes, or not admit this machine", follower.Text());
    EXPECT_EQ(Wire("TRACEON/"), device.Next());
    device.Send(kLine);
    follower.ExpectSaid(" following silent back <x> silent");
}

TEST(TqtraceFollowed, AccountsForEveryLineThatTheSystemHadNoRoomFor) {
    constexpr unsigned int kLines = 5000;
    PlayedDevice device;
    Follower follower(device.Says(), Patient(), /*bufferBytes=*/1);
    EXPECT_EQ(Wire("TRACEON/"), device.Next());
    for (unsigned int i = 0; i < kLines; ++i) { // nobody takes them meanwhile
        device.Send(kLine);
    }
    EXPECT_TRUE(WaitUntil([&] {
        follower->OnReadable();
        return test::CountOf(follower.Said(), "<x>") > 0;
    }));
    follower->OnReadable();
    EXPECT_EQ(0u, follower.Lost()); // those that fitted came before the others
    device.Send(kLine);
    EXPECT_TRUE(WaitUntil([&] {
        follower->OnReadable();
        return follower.Lost() > 0;
    }));
    EXPECT_EQ(kLines + 1, test::CountOf(follower.Said(), "<x>") + follower.Lost());
    EXPECT_EQ(" lost <x>", follower.Said().substr(follower.Said().size() - 9)); // said where they are missing

    for (unsigned int i = 0; i < kLines; ++i) {
        device.Send(kLine);
    }
    follower->End(); // says it also when nothing comes any more
    EXPECT_EQ(2 * kLines + 1, test::CountOf(follower.Said(), "<x>") + follower.Lost());
}

TEST(TqtraceFollowed, APlaceThatIsFollowedWithoutANameTakesTheOneItAnnounces) {
    PlayedDevice device;
    Announcement place;
    place.endpoint = device.Place();
    place.name = Named(device.Place());
    Follower follower(place);
    PlayedDevice other;
    EXPECT_FALSE(follower->Is(other.Says()));
    ASSERT_TRUE(follower->Is(device.Says()));
    follower->OnAnnouncement(device.Says());
    EXPECT_EQ("127.0.0.1:a", follower->Name());
    EXPECT_EQ("is 127.0.0.1:a", follower.Text());
    device.End();
    PlayedDevice again;
    follower->OnAnnouncement(again.Says());
    follower.ExpectSaid(" following following restarted");
}

TEST(TqtraceListener, TakesAnAnnouncementFromThePlaceThatItNamesAlone) {
    RUN_IN_NETWORK([] {
        Endpoint group;
        ASSERT_TRUE(ParseEndpoint(kGroup, &group));
        Listener listener;
        std::string problem;
        ASSERT_TRUE(listener.Open(group, &problem)) << problem;
        PlayedDevice device("10.99.2.1");
        const std::string port = std::to_string(device.Place().port);
        const std::string head = "DISCOVER/version=1.2/applicationName=x:a/mac=m/IPAddr=";
        const struct sockaddr_in to = ToSocketAddress(group);
        device.SendTo(to, Wire("no announcement"));
        device.SendTo(to, Wire(head + "10.99.1.1/port=" + port + "/host=//"));
        device.SendTo(to, Wire(head + "10.99.2.1/port=9/host=//"));
        device.SendTo(to, Wire(head + "10.99.2.1/port=" + port + "/host=//"));
        Announcement found;
        EXPECT_TRUE(WaitUntil([&] { return listener.Next(&found); }));
        EXPECT_TRUE(found.endpoint == device.Place()) << found.endpoint.Text();
        EXPECT_FALSE(listener.Next(&found));
    });
}

// ---- The program beside the demo device

constexpr char kPassword[] = "lookinside";

const DemoDevice::Changes kOnTheNetwork = {
    {"device_LogToFile=device.log", "device_LogToFile=device.log\ndevice_LogToMulticast=yes\ndevice_ShowThreadID=yes"},
    {"SamplePeriodMs=1000", "SamplePeriodMs=3600000"},
};

/// tqtrace under a terminal.
class Viewer : public test::TerminalProgram {
public:
    explicit Viewer(std::vector<std::string> arguments) : TerminalProgram(WithProgram(std::move(arguments))) {}

    /// Reads to the text, and over the rest of its line.
    std::string ReadLineWith(const std::string& text) {
        const std::string before = Terminal().ReadTo(text);
        return before + Terminal().ReadTo("\n");
    }

private:
    static std::vector<std::string> WithProgram(std::vector<std::string> arguments) {
        setenv("TQOS_PASSWORD", kPassword, 1);
        arguments.insert(arguments.begin(), TQTRACE_PROGRAM);
        return arguments;
    }
};

/// A session of the device's console.
class Session {
public:
    explicit Session(const DemoDevice& device) : m_client(device.ConsolePort()) {
        m_client.ReadTo("login: ");
        m_client.Send(std::string(kPassword) + "\r");
        m_client.ReadTo("\r\n>");
    }
    std::string Run(const std::string& command) {
        m_client.Send(command + "\r");
        return m_client.ReadTo("\r\n>");
    }
    /// Has the device trace a warning.
    void Warn() {
        Run("send sampler fail 1");
        m_client.ReadTo("samples yet to fail: 1\r\n>");
        Run("send sampler sample");
        m_client.ReadTo("the sample could not be taken\r\n>");
    }
    std::string LevelOfDevice() {
        const std::string report = Run("show detail trace device");
        const std::string field = "  Tracing Level:         ";
        const size_t at = report.find(field) + field.size();
        return report.substr(at, report.find('\r', at) - at);
    }

private:
    ConsoleClient m_client;
};

constexpr char kWarning[] = " (device) WRN: a sample could not be taken";

/// A subscription is said when it is sent; when the device has taken it, shows in that lines come.
void WarnUntilShown(Viewer* pViewer, Session* pSession) {
    do {
        pSession->Warn();
    } while (!test::WaitReadable(pViewer->Terminal().Descriptor(), 1));
    pViewer->ReadLineWith(kWarning);
}

class TqtraceFollow : public test::WithDevice {};
INSTANTIATE_TEST_SUITE_P(, TqtraceFollow, testing::Values("64", "32"), test::WidthName);

TEST_P(TqtraceFollow, ShowsLinesAndThatTheDeviceHasRestartedAndChangedItsAddress) {
    RUN_IN_NETWORK([this] {
        Viewer viewer({"follow", "device"});
        {
            DemoDevice device(Program(), kOnTheNetwork);
            viewer.ReadLineWith(" 0.0.0.0:device: is followed at 10.99.1.1 port ");
            Session session(device);
            WarnUntilShown(&viewer, &session);
        }
        DemoDevice device(Program(), kOnTheNetwork);
        viewer.ReadLineWith(" 0.0.0.0:device: restarted, now at 10.99.1.1 port ");
        Session session(device);
        WarnUntilShown(&viewer, &session);
        ASSERT_TRUE(test::Switch("net1", false)); // the device sees it within five seconds
        viewer.ReadLineWith(" 0.0.0.0:device: has changed its address, now at 10.99.2.1 port ");
        WarnUntilShown(&viewer, &session);
    });
}

/// With the console on the same port each time: nobody else is on this network.
DemoDevice::Changes WithConsolePort() {
    DemoDevice::Changes changes = kOnTheNetwork;
    changes.push_back({"is not.\nPort=0", "is not.\nPort=2323"});
    return changes;
}
const std::vector<std::string> kSetLevel = {"follow", "DEVICE", "--console", "127.0.0.1:2323", "--set-level"};

std::vector<std::string> SetLevelTo(const std::string& level) {
    std::vector<std::string> words = kSetLevel;
    words.push_back(level);
    return words;
}

TEST_P(TqtraceFollow, SetsTheDevicesLevelAlsoAfterARestartAndPutsItBackWhenItIsInterrupted) {
    RUN_IN_NETWORK([this] {
        Viewer viewer(SetLevelTo("Critical"));
        {
            DemoDevice device(Program(), WithConsolePort());
            viewer.ReadLineWith(" the level of device is Critical, was Informational");
            EXPECT_EQ("Critical", Session(device).LevelOfDevice());
        }
        DemoDevice device(Program(), WithConsolePort());
        viewer.ReadLineWith(" 0.0.0.0:device: restarted, ");
        viewer.ReadLineWith(" the level of device is Critical, was Informational");
        viewer.Terminal().Send("\x03"); // as Ctrl-C on its terminal
        viewer.ReadLineWith(" the level of device is Informational again");
        EXPECT_EQ("Informational", Session(device).LevelOfDevice());
    });
}

TEST_P(TqtraceFollow, LeavesALevelThatSomebodyElseHasSet) {
    RUN_IN_NETWORK([this] {
        Viewer viewer(SetLevelTo("LOW"));
        DemoDevice device(Program(), WithConsolePort());
        viewer.ReadLineWith(" the level of device is Debug Low, was Informational");
        Session session(device);
        session.Run("set trace level Severe device");
        kill(viewer.Pid(), SIGTERM);
        viewer.ReadLineWith(" could not be put back to Informational: somebody has set it to Severe");
        EXPECT_EQ("Severe", session.LevelOfDevice());
    });
}

TEST_P(TqtraceFollow, WritesJsonThatIsFiltered) {
    RUN_IN_NETWORK([this] {
        DemoDevice device(Program(), kOnTheNetwork);
        Session session(device);
        const std::string console = device.ConsoleAddress();
        ChildResult result;
        // It ends with the second line that passes; the device is asked for lines until then.
        const pid_t asking = fork();
        if (asking == 0) {
            for (;;) {
                Session asked(device);
                asked.Run("send status port 9");
                asked.Warn();
                usleep(100000);
            }
        }
        result = test::RunTool({{TQTRACE_PROGRAM, "follow", "0.0.0.0:dev*", "--json", "--level", "WRN", "--instance",
                                 "device", "--match", "sample", "--lines", "2", "--output", "out"},
                                {},
                                ""});
        kill(asking, SIGKILL);
        waitpid(asking, nullptr, 0);
        EXPECT_EQ(0, result.code) << result.standardError;
        std::istringstream lines(test::ReadFile("out"));
        std::vector<nlohmann::json> objects;
        for (std::string line; std::getline(lines, line);) {
            objects.push_back(nlohmann::json::parse(line));
        }
        ASSERT_EQ(3u, objects.size());
        EXPECT_EQ("following", objects[0]["event"]);
        EXPECT_EQ("10.99.1.1", objects[0]["address"]);
        for (size_t i = 1; i < 3; ++i) {
            EXPECT_EQ("line", objects[i]["type"]);
            EXPECT_EQ("0.0.0.0:device", objects[i]["source"]);
            EXPECT_EQ("device", objects[i]["instance"]);
            EXPECT_EQ("Warning", objects[i]["level"]);
            EXPECT_EQ("a sample could not be taken", objects[i]["message"]);
            EXPECT_TRUE(objects[i].contains("kernelThread"));
            EXPECT_TRUE(objects[i].contains("time"));
        }
    });
}

TEST_P(TqtraceFollow, ListsWhatAnnouncesItself) {
    RUN_IN_NETWORK([this] {
        Viewer viewer({"list", "--seconds", "60"});
        Viewer json({"list", "--json", "--seconds", "60"});
        DemoDevice device(Program(), kOnTheNetwork);
        viewer.ReadLineWith("0.0.0.0:device                    10.99.1.1        ");
        const std::string line = json.ReadLineWith("{\"name\":\"0.0.0.0:device\"");
        const nlohmann::json object = nlohmann::json::parse(line);
        EXPECT_EQ("device", object["instance"]);
        EXPECT_EQ("10.99.1.1", object["address"]);
        EXPECT_EQ("1.2", object["version"]);
        EXPECT_LT(0, object["port"].get<int>());
        EXPECT_EQ(17u, object["mac"].get<std::string>().size());
    });
}

TEST(TqtraceProgram, WhatIsNotThereIsNotFound) {
    test::ScratchDirectory directory;
    RUN_IN_NETWORK([] {
        const ChildResult list = test::RunTool({{TQTRACE_PROGRAM, "list", "--seconds", "1"}, {}, ""});
        EXPECT_EQ(1, list.code);
        EXPECT_EQ("", list.standardOut);
        const ChildResult follow = test::RunTool({{TQTRACE_PROGRAM, "follow", "device", "--seconds", "1"}, {}, ""});
        EXPECT_EQ(0, follow.code);
        EXPECT_EQ("", follow.standardOut + follow.standardError);
    });
}

TEST(TqtraceProgram, TwoPlacesWithOneNameAreFollowedOnceEach) {
    RUN_IN_NETWORK([] {
        Endpoint group;
        ASSERT_TRUE(ParseEndpoint(kGroup, &group));
        PlayedDevice first("10.99.1.1");
        PlayedDevice second("10.99.1.1");
        Viewer viewer({"follow", Named(first.Place()), Named(second.Place())});
        for (PlayedDevice* pDevice : {&first, &second}) {
            EXPECT_TRUE(WaitUntil([&] { return pDevice->Next() == Wire("TRACEON/"); }));
        }
        const in_port_t port = second.Viewer().sin_port;
        for (const PlayedDevice* pDevice : {&first, &second}) {
            pDevice->SendTo(ToSocketAddress(group),
                            Wire("DISCOVER/version=1.2/applicationName=x:a/mac=m/IPAddr=10.99.1.1/port=" +
                                 std::to_string(pDevice->Place().port) + "/host=//"));
            viewer.ReadLineWith(" x:a: is x:a");
        }
        EXPECT_TRUE(WaitUntil([&] { return second.Next() == Wire("TRACEON/"); })); // once more, being announced
        do {
            EXPECT_EQ(port, second.Viewer().sin_port);
        } while (second.Next() == Wire("TRACEON/"));
    });
}

TEST(TqtraceProgram, FollowsAPlaceAndEndsWhenNobodyTakesItsOutput) {
    test::ScratchDirectory directory;
    RUN_IN_NETWORK([] {
        PlayedDevice device;
        const std::string place = Named(device.Place());
        int output[2];
        ASSERT_EQ(0, pipe2(output, O_CLOEXEC));
        const pid_t viewer = fork();
        if (viewer == 0) {
            dup2(output[1], STDOUT_FILENO);
            dup2(open("errors.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
            execl(TQTRACE_PROGRAM, "tqtrace", "follow", place.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(output[1]);
        EXPECT_TRUE(WaitUntil([&] { return device.Next() == Wire("TRACEON/"); }));
        close(output[0]);
        int status = 0;
        EXPECT_TRUE(WaitUntil([&] {
            device.Send(kLine);
            return waitpid(viewer, &status, WNOHANG) == viewer;
        }));
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(2, WEXITSTATUS(status));
        EXPECT_EQ("tqtrace: the output could not be written\n", test::ReadFile("errors.txt"));
        EXPECT_EQ(Wire("TRACEOFF/"), device.Next()); // it has said good-bye all the same
    });
}

} // namespace
