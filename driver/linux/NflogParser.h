// CNflogParser: turns the packet filter's NFLOG messages, as one read of the
// netlink socket gave them, into driver records (the packet event record of
// driver/record, as the capture replay makes it too). Every length is checked before it is
// read; a message that is not a well-formed NFLOG packet of the project's ruleset is counted as
// dropped.
//
// Threads: used by the one thread that reads the source; no lock.
#pragma once

#include <stdint.h>
#include <sys/time.h>

#include <deque>
#include <functional>
#include <string>

#include "driver/linux/RecordSource.h"

struct nlmsghdr;

namespace NORVI {

class CNflogParser {
public:
    // The hardware address of an interface by index into mac (8 bytes): its
    // length, 0 when unknown.
    using MacLookup = std::function<uint32_t(uint32_t interfaceIndex, uint8_t* mac)>;

    // maxPacketBytes bounds the packet that a record may carry (at most the
    // record's largest trailing block); bigger ones are dropped.
    // The group must be newly bound: its sequence numbers start at 0.
    CNflogParser(MacLookup lookup, size_t maxPacketBytes);

    // Parses the messages in buffer; receiveTime stands for the time of a
    // packet that came without a time stamp (the output hook never has one).
    // The records go to the back of out.
    void Feed(const void* buffer, size_t length, const timeval& receiveTime,
              std::deque<SourceRecord>& out);

    // Counts a message that could not even be read whole (the socket said it
    // was larger than the buffer).
    void CountDropped(const std::string& reason);

    // m_Records, m_Gaps and m_Dropped; m_Lost is the socket's business.
    const SourceCounters& Counters() const { return m_Counters; }
    // Why the last message was dropped; empty when none was.
    const std::string& LastDrop() const { return m_LastDrop; }

private:
    // The length of the messages at the start of buffer that lie within it
    // whole (a tail shorter than a message header counts as theirs).
    static size_t WholeMessages(const void* buffer, size_t length);
    static int OnMessage(const nlmsghdr* message, void* self);
    // One NFLOG packet message into record; false with the reason in m_LastDrop.
    bool Build(const nlmsghdr* message, SourceRecord& record);
    void NoteSequence(uint32_t sequence);

    MacLookup m_Lookup;
    size_t m_MaxPacketBytes;
    timeval m_ReceiveTime{};
    std::deque<SourceRecord>* m_Out = nullptr;  // during Feed only
    uint32_t m_NextSequence = 0;                // a fresh binding numbers its messages from 0
    SourceCounters m_Counters;
    std::string m_LastDrop;
};

}  // namespace NORVI
