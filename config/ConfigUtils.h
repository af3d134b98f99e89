// ConfigUtils: the module's read-only view of the configuration table that a
// script hands to one call.
//
// It holds the interpreter and the stack position of the table, and is made
// by a script entry for the length of that call and never kept beyond it.
// Nothing is cached: every operation reads the table afresh. All operations
// run on the Lua thread of the call that made the object, which owns its one
// piece of state, the kept error; every operation leaves the Lua stack as it
// found it.
//
// The table is read inside lua_pcall, by small C functions that copy what they
// find onto the stack, so that no error raised by Lua (an index of something
// that is no table, a failed allocation) can jump over a live C++ object, here
// or in the log object that called. Lookups that fail return false (or
// nothing) with the reason in a trace line of the category "vexil". The error
// that getInterfaceID and BlacklistIp meet when the position holds no table
// (Lua's own index error) is the script's: it is kept, the lookup returns
// false, and the entry raises it once the call into the log object has
// returned (HasPendingError, PushPendingError).
#pragma once

#include <string>

#include <wx/string.h>

#include "config/IpList.h"
#include "host/Types.h"
#include "host/norvi.h"

struct lua_State;

namespace VEXIL {

// The number of probe types (FingerprintScan to XmasScan) that the probe
// configuration map keys and the traffic analysis counts.
constexpr int kProbeTypeCount = 5;

class ConfigUtils {
public:
    ConfigUtils(lua_State* state, i32 position) : L(state), index(position) {}
    // Releases a kept error that nobody took.
    ~ConfigUtils();
    ConfigUtils(const ConfigUtils&) = delete;
    ConfigUtils& operator=(const ConfigUtils&) = delete;

    lua_State* L;  // the interpreter of the running script call
    i32 index;     // stack position of the configuration table

    // Whether a lookup met an error that Lua raised and that belongs to the
    // script; the first one is kept.
    bool HasPendingError() const;
    // Pushes the kept error object (nil when there is none) and forgets it,
    // for the entry to raise with lua_error.
    void PushPendingError();

    // The texts of these lookups are the table's bytes as they stand (UTF-8
    // when the script keeps to it), so that a caller that writes them into
    // narrow text converts nothing; a missing text reads as empty.
    // packetFilterMap[id]: name and filterAction.
    bool getPacketFilterInfo(u32 id, std::string& name, u32& action) const;
    // payloadFilterMap[id]: name, severity, identifier and incoming.
    bool getPayloadFilterInfo(u32 id, std::string& name, bool& incoming, u32& severity,
                              std::string& identifier) const;
    // agentConfiguration: hostID and hostname. A failure leaves both untouched
    // and is seen only in the trace, so the caller sets defaults first.
    void getAgentConfigurationHostIdentity(std::string& hostname, u32& hostID) const;
    // interfaceMap[mac], mac being the hardware address in hexadecimal text.
    bool getInterfaceName(const std::string& mac, std::string& name) const;

    // The values of a packet rule or of a payload filter, as
    // getPacketFilterInfo and getPayloadFilterInfo give them; each stays as
    // the caller set it unless the lookup that gives it finds its entry.
    struct SyslogEventInfo {
        std::string name;
        u32 action = 0;         // of a packet rule
        bool incoming = false;  // the rest of a payload filter
        u32 severity = 0;
        std::string identifier;
    };
    // What one syslog message needs of the table, in one protected read:
    // unless id is 0, the payload filter (payload) or the packet rule of id
    // into info, and hostID of agentConfiguration, each with the traces of
    // its own lookup above. True when the rule or filter was found.
    bool getSyslogEventInfo(bool payload, u32 id, SyslogEventInfo& info, u32& hostID) const;
    bool getInterfaceConfigID(const std::string& mac, u32& id) const;
    // The configuration id of the driver's interface index: finds the entry
    // of driverInterfaceMap with that id (fractions cut off) and looks its
    // hardware address up in interfaceMap. False, with no trace, when no
    // entry has the index. When the position holds no table, Lua's own index
    // error is kept for the entry, and the result is false.
    bool getInterfaceID(u32 driverIndex, u32& id);

    // The group packetFilterLog. Values that are absent read as 0. The list
    // ignoreIpList is replaced by a new one, or by null when the group has
    // none or its text has a bad entry; the list that stood there before is
    // not freed here: it is the caller's.
    bool getAgentConfigurationPacketFilterLog(u32& size, u32& keep, IpList*& ignoreIpList,
                                              u64& cacheSize, u32& cacheLifetime,
                                              u32& cacheStaletime) const;
    // The group trafficAnalysisConfiguration (the two lists, replaced as
    // above) and probeConfigurationMap: bit n of probeEnabled is set for each
    // probe type n that has an entry, with its block time stored in
    // blockAttackerSeconds[n] and its notifyImmediately in bit n of
    // probeNotifyImmediately. Entries 0 and 1 of the array and both bit sets
    // are cleared first. The lists are replaced even when the map is missing.
    bool getAgentConfigurationTrafficAnalysis(IpList*& destIpList, IpList*& whitelistIpList,
                                              u32 blockAttackerSeconds[kProbeTypeCount],
                                              u32& probeEnabled, u32& probeNotifyImmediately) const;

    // Parses an address list text into list (emptied first). Entries are
    // separated by runs of commas and blanks; each is a range "a-b", a masked
    // address "a/n" or "a/m.m.m.m", or a dotted pattern where "*" and missing
    // parts are wildcards. A bad entry is reported as the agent event 2019,
    // left out, and makes the result false.
    static bool ParseIpList(const wxString& items, const wxString& listName,
                            const wchar_t* kindName, IpList* list);
    // The mask of an entry: dotted text as it stands, or a prefix length of
    // 1 to 32 as that many leading bits, in network byte order. Any other
    // length is reported as the agent event 2019 for the whole entry.
    static bool ParseIpMask(const wxString& mask, const wxString& entry, const wxString& listName,
                            const wchar_t* kindName, u32& result);

    // Asks the driver to block address (network byte order) for seconds,
    // unless platformInterfaceMap names dottedAddress as one of the host's own
    // interfaces: then false, with notBlocked as the caller set it. Otherwise
    // notBlocked is cleared and the result says whether the driver took it.
    // When the position holds no table, Lua's own index error is kept for the
    // entry, and the result is false.
    bool BlacklistIp(norvi_handle_t handle, u32 address, const wxString& dottedAddress, u32 seconds,
                     bool& notBlocked);
    // True for code 0; otherwise an operator log error and the agent event
    // 1001, and false.
    static bool ShowErrors(const wchar_t* command, u32 code);

    // A Lua number cut to a whole number, saturated to the range of i64; NaN
    // gives 0. Numbers of the table are read as integers through this.
    static i64 TruncateNumber(double number);

private:
    enum ReadResult { kRead, kNoStack, kRaised };

    // Runs reader in protected mode with a copy of the configuration value at
    // position 1 and query (a light userdata) at position 2. kRead: the
    // reader's results values stand right above the old top. kRaised: the
    // error object stands there alone. kNoStack (traced): nothing was pushed.
    ReadResult ProtectedRead(int (*reader)(lua_State*), void* query, int results) const;
    // As ProtectedRead, but an error raised inside is traced and dropped:
    // true only for kRead.
    bool ReadOrTrace(int (*reader)(lua_State*), void* query, int results) const;
    // Keeps the error object on top of the stack as the pending error (unless
    // one is kept already) and pops it.
    void KeepError();
    // Frees the registry slot of the kept error, if any, and forgets it.
    void ReleaseKeptError();

    // Take the reader results of a packet rule or a payload filter that
    // start at position.
    void TakePacketRule(int position, std::string& name, u32& action) const;
    void TakePayloadFilter(int position, std::string& name, bool& incoming, u32& severity,
                           std::string& identifier) const;

    // Replaces list by the named list whose three reader results (present,
    // items, name) start at position.
    void ReplaceList(int position, IpList*& list) const;

    // Reader results: a string or nil as text (nil gives ""), decoded from
    // UTF-8 or as its bytes, a value as a whole number (anything that is no
    // number gives 0).
    static wxString TextResult(lua_State* state, int position);
    static std::string BytesResult(lua_State* state, int position);
    static i64 IntegerResult(lua_State* state, int position);

    // Registry reference of the kept error: kNoError, or kLostError when it
    // could not be stored for want of memory.
    static constexpr int kNoError = -2;
    static constexpr int kLostError = -3;
    int m_PendingError = kNoError;
};

}  // namespace VEXIL
