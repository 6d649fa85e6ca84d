#include "ComputeChain.h"

#include "IPUtil.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "framework/Engine.h"
#include "framework/Task.h"

#include <Poco/Util/Application.h>
#include <arpa/inet.h>

#include <string>

namespace Engine {

namespace {

const char* const kTaskName = "port_scan_task";

// Alarm types the classifiers report.
const int kAlarmCommon = 1;
const int kAlarmHalfOpen = 2;
const int kAlarmFin = 4;
const int kAlarmFinPshUrg = 5;

// Lengths of the flag texts the half-open classifier looks for ("SYN", "FIN", "PSH,URG,FIN").
const std::string::size_type kSingleFlagLength = 3;
const std::string::size_type kFinPshUrgLength = 11;

// What the address tests made of a packet.
enum class Source { kNoTask, kSafe, kSuspect };

// The classifiers have no pointer to the task: they look it up in the running application. A
// missing application is a bug check of POCO's (an exception), not a quiet "no task".
Framework::Task* FindScanTask() {
    auto* engine = dynamic_cast<Framework::Engine*>(&Poco::Util::Application::instance());
    if (engine == nullptr) {
        return nullptr;
    }
    return engine->FindTask(kTaskName);
}

// The address tests shared by both classifiers, on the task found by FindScanTask. A probe from a
// white-listed or a public host is safe: public sources are never reported.
Source CheckSource(Framework::Task* task, const PacketNode& pkt) {
    if (task == nullptr) {
        return Source::kNoTask;
    }
    // Marked before the policy is read, so the policy read here cannot be freed under us.
    task->MarkActivity();
    auto* policy = dynamic_cast<PortScanTaskPolicy*>(task->GetTaskPolicy());
    if (policy == nullptr) {
        // Not yet handed its policy: nothing to classify against.
        return Source::kNoTask;
    }
    if (pkt.isIpv6) {
        // The IPv6 counterparts: "white_ip6_list", and unique-local or link-local as private.
        if (IPUtil::IsWhiteIp6List(IPUtil::Ip6Text(pkt.remoteAddress6).c_str(), policy->GetWhiteIp6List()) ||
            !IPUtil::IsIntraIp6List(pkt.remoteAddress6)) {
            return Source::kSafe;
        }
        return Source::kSuspect;
    }
    if (IPUtil::IsWhiteIpList(inet_ntoa(pkt.remoteAddress), policy->GetWhileIpList())) {
        return Source::kSafe;
    }
    if (!IPUtil::IsIntraIpList(pkt.remoteAddress)) {
        return Source::kSafe;
    }
    return Source::kSuspect;
}

bool Contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

bool ComputeChain::handle(const PacketNode& /*pkt*/, int& /*alarmType*/, unsigned long /*len*/) {
    return false;
}

bool CommonComputeChain::handle(const PacketNode& pkt, int& alarmType, unsigned long /*len*/) {
    if (CheckSource(FindScanTask(), pkt) != Source::kSuspect) {
        return false;
    }
    // Whatever the protocol and flags: any probe of an unused port is a scan.
    alarmType = kAlarmCommon;
    return true;
}

bool HFConnectChain::handle(const PacketNode& pkt, int& alarmType, unsigned long /*len*/) {
    PORTSCAN_LOG(Poco::Message::PRIO_WARNING, "[PortScan] Check port (%hu), flag (%s)", pkt.localPort,
                 pkt.flag);
    if (pkt.type != 0) {
        return false;
    }

    const Source source = CheckSource(FindScanTask(), pkt);
    if (source == Source::kNoTask) {
        return false;
    }
    if (source == Source::kSafe) {
        PORTSCAN_LOG(Poco::Message::PRIO_WARNING, "[PortScan] safe pkt found, safe(%d)", 0);
        return false;
    }

    // Plain text tests on the flag text. The packet parser never names FIN and joins names with
    // commas, so the last two tests never fire on its output; they are kept as they are.
    const std::string& flag = pkt.flag;
    if (Contains(flag, "SYN") && flag.size() == kSingleFlagLength) {
        alarmType = kAlarmHalfOpen;
        return true;
    }
    if (Contains(flag, "FIN") && flag.size() == kSingleFlagLength) {
        alarmType = kAlarmFin;
        return true;
    }
    if (Contains(flag, "PSH") && Contains(flag, "URG") && Contains(flag, "FIN") &&
        flag.size() == kFinPshUrgLength) {
        alarmType = kAlarmFinPshUrg;
        return true;
    }
    return false;
}

}  // namespace Engine
