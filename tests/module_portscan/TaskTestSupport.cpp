#include "TaskTestSupport.h"

#include "PortScanModule.h"
#include "framework/Engine.h"
#include "sdk/LoggerUtils.h"

#include <Poco/Logger.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

std::string Engine::CollectPortInfoTaskPeer::Fields() const {
    std::ostringstream out;
    out << "ban=" << t.m_banPortMap.size() << (t.m_banPortMap.count(0) != 0 ? "(0)" : "")
        << " set=" << t.m_portSet.size() << " ready=" << t.m_socketReady << " maxErr=" << t.m_maxErrCount
        << " banTime=" << t.m_banTime << " state=" << t.m_monitorStatus << " idle=" << t.m_idleCount
        << " running=" << t.m_running << " firstRun=" << t.m_firstRun << " sock=" << t.m_sockFd
        << " epoll=" << t.m_epollFd << " tick=" << t.m_lastTickTime;
    return out.str();
}

namespace TaskTest {

const char* const kDumpPolicyHeader = "-------------------------Print Policy Port-------------------------";
const char* const kDumpBanHeader = "-------------------------Print Ban Port-------------------------";
const char* const kDumpEndHeader = "-------------------------End of Port info-------------------------";

void RecordingChannel::log(const Poco::Message& msg) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back({msg.getSource(), msg.getText(), msg.getPriority()});
}

void RecordingChannel::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

std::vector<RecordingChannel::Line> RecordingChannel::Lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

std::vector<std::string> RecordingChannel::Texts() const {
    std::vector<std::string> texts;
    for (const Line& line : Lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

std::size_t RecordingChannel::Count(const std::string& text) const {
    const std::vector<std::string> texts = Texts();
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}

std::size_t RecordingChannel::CountPrefix(const std::string& prefix) const {
    const std::vector<std::string> texts = Texts();
    return static_cast<std::size_t>(
        std::count_if(texts.begin(), texts.end(),
                      [&prefix](const std::string& t) { return t.compare(0, prefix.size(), prefix) == 0; }));
}

long RecordingChannel::IndexOf(const std::string& text, std::size_t from) const {
    const std::vector<std::string> texts = Texts();
    for (std::size_t i = from; i < texts.size(); ++i) {
        if (texts[i] == text) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

int RecordingChannel::PriorityOf(const std::string& text) const {
    for (const Line& line : Lines()) {
        if (line.text == text) {
            return line.prio;
        }
    }
    return -1;
}

RecordingChannel& Recorder() {
    static Poco::AutoPtr<RecordingChannel> channel(new RecordingChannel);
    return *channel;
}

void ConfigureLogging(const std::string& level) {
    SDK::LogSettings settings;
    settings.level = level;
    settings.console = false;
    std::string error;
    if (!SDK::LoggerUtils::GetInstance()->Configure(settings, error) ||
        Engine::PortScan::GetLoggerPtr() == nullptr) {
        throw std::runtime_error("logging set-up failed: " + error);
    }
    // Configure hands every logger the common channel again. setChannel takes a reference of its own.
    const Poco::AutoPtr<Poco::Channel> channel(&Recorder(), true);
    SDK::LoggerUtils::GetInstance()->GetRootLogger()->setChannel(channel);
    Engine::PortScan::GetLoggerPtr()->setChannel(channel);
}

namespace {

Framework::Engine& TestEngine() {
    static Framework::Engine* engine = new Framework::Engine;
    return *engine;
}

}  // namespace

std::string PolicyJson(const std::string& monitorList, const std::string& extra) {
    return R"({"monitor_list":)" + monitorList + R"(,"task_condition":{})" + extra + "}";
}

bool ReportRecorder::EnqueueMsg(Framework::Message* msg) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto* data = dynamic_cast<const Framework::DataMessage*>(msg);
        m_received.push_back({msg->GetType(), data != nullptr ? data->GetBody() : std::string()});
    }
    delete msg;
    return true;
}

std::vector<ReportRecorder::Received> ReportRecorder::Messages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}

void ReportRecorder::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_received.clear();
}

ScopedRegistration::ScopedRegistration(Framework::Task* task)
    : m_name(task->name()), m_registered(TestEngine().RegisterTask(task, false)) {
    EXPECT_TRUE(m_registered) << "could not register " << m_name;
}

ScopedRegistration::~ScopedRegistration() {
    if (m_registered) {
        TestEngine().UnRegisterTask(m_name);
    }
}

Engine::PacketNode MakePacket(const char* local, unsigned short localPort, const char* remote,
                              unsigned short remotePort, int type, const std::string& flag) {
    Engine::PacketNode pkt{};
    pkt.localAddress.s_addr = inet_addr(local);
    pkt.localPort = localPort;
    pkt.remoteAddress.s_addr = inet_addr(remote);
    pkt.remotePort = remotePort;
    pkt.type = type;
    pkt.flag = flag;
    return pkt;
}

std::vector<char> BuildFrame(const char* source, const char* destination, unsigned short sourcePort,
                             unsigned short destinationPort, int protocol, unsigned char tcpFlags) {
    std::vector<char> frame(100, 0);
    auto put16 = [&frame](std::size_t offset, unsigned int value) {
        frame[offset] = static_cast<char>((value >> 8) & 0xff);
        frame[offset + 1] = static_cast<char>(value & 0xff);
    };
    put16(12, 0x0800);                   // Ethernet type IPv4
    frame[14] = 0x45;                    // version 4, 20-byte header
    put16(16, protocol == 6 ? 40 : 28);  // total length
    frame[22] = 64;                      // TTL
    frame[23] = static_cast<char>(protocol);
    const in_addr_t from = inet_addr(source);
    const in_addr_t to = inet_addr(destination);
    std::memcpy(&frame[26], &from, 4);
    std::memcpy(&frame[30], &to, 4);
    put16(34, sourcePort);
    put16(36, destinationPort);
    if (protocol == 6) {
        frame[46] = 0x50;  // data offset: 5 words
        frame[47] = static_cast<char>(tcpFlags);
    } else {
        put16(38, 8);  // UDP length
    }
    return frame;
}

Engine::PortInfoNode PolicyRecord(const Engine::PortScanTaskPolicy& policy, uint32_t port, uint32_t type) {
    for (const Engine::PortInfoNode& node : policy.GetPolicyPortSet()) {
        if (node.port == port && node.type == type) {
            return node;
        }
    }
    return Engine::PortInfoNode();
}

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

LoopbackSocket::LoopbackSocket(int sockType, bool listening) {
    m_fd = socket(AF_INET, sockType, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        (listening && sockType == SOCK_STREAM && listen(m_fd, 4) != 0) ||
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ADD_FAILURE() << "loopback socket set-up failed";
        return;
    }
    m_port = ntohs(address.sin_port);
}

void LoopbackSocket::Close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

unsigned short FreeLoopbackPort(int sockType) {
    return LoopbackSocket(sockType, false).Port();
}

void TaskFixture::SetUp() {
    TestEngine();
    ConfigureLogging("debug");
    Recorder().Clear();
    m_clock = std::make_shared<FakeClock>(kStart);
    SDK::TimeUtils::SetClockSource(m_clock);
    m_task.reset(NewTask());
    ASSERT_TRUE(m_task->Init());
}

void TaskFixture::TearDown() {
    m_standInRegistration.reset();
    if (m_task) {
        m_task->UnInit();
        m_task.reset();
    }
    SDK::TimeUtils::SetClockSource(nullptr);
}

Engine::PortScanTaskPolicy* TaskFixture::UsePolicy(const std::string& json) {
    m_policies.emplace_back(new Engine::PortScanTaskPolicy("port_scan_task"));
    m_policy = m_policies.back().get();
    EXPECT_TRUE(m_policy->Parse(json)) << json;
    m_task->SetTaskPolicy(m_policy);
    if (m_standIn) {
        m_standIn->SetTaskPolicy(m_policy);
    }
    return m_policy;
}

void TaskFixture::RegisterScanStandIn() {
    if (m_standIn) {
        return;  // UsePolicy keeps its policy current
    }
    m_standIn = new ScanTaskStandIn;
    m_standInRegistration.reset(new ScopedRegistration(m_standIn.get()));
    // Registration hands the task the runtime's policy for its name (none here): set ours after.
    m_standIn->SetTaskPolicy(m_policy);
}

}  // namespace TaskTest
