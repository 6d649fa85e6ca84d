#pragma once

#include "SocketUtil.h"

namespace Engine {

// One classifier in the chain that decides whether a counted packet is a scan. The task owns the
// chain and deletes it element by element, tail first; an element never deletes `next`.
class ComputeChain {
public:
    ComputeChain() : next(nullptr) {}
    virtual ~ComputeChain() = default;

    // True when `pkt` is a scan event; `alarmType` is then set (1 common, 2 half-open, 4 bare FIN,
    // 5 FIN+PSH+URG). False leaves `alarmType` alone. `len` is the caller's buffer length, unused.
    virtual bool handle(const PacketNode& pkt, int& alarmType, unsigned long len);

    ComputeChain* next;
};

// Any probe from a private, non-white-listed host.
class CommonComputeChain : public ComputeChain {
public:
    bool handle(const PacketNode& pkt, int& alarmType, unsigned long len) override;
};

// Half-open probes, told by their TCP flag text.
class HFConnectChain : public ComputeChain {
public:
    bool handle(const PacketNode& pkt, int& alarmType, unsigned long len) override;
};

}  // namespace Engine
