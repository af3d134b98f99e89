-- The demo agent: a host store, one log object, a few driver records fed
-- through the log path, and the lines that land in the log file.
local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"

local folder = os.getenv("VEXIL_DEMO_DIR")
if not folder then
  local pipe = io.popen("mktemp -d /tmp/vexil-demo-XXXXXX")
  folder = pipe:read("*l")
  pipe:close()
end

local dom = SLB.norv.Dom(":memory:")
local log = SLB.vexil.LogData(dom)
log:SetLogFilePath(folder .. "/logs")
print("log file:         " .. log:GetLogFileFullPath())
print("InitializeLogFile " .. tostring(log:InitializeLogFile()))
print(string.format("rotates at %d KiB, keeps %d old copies",
                    log:GetLogFileSizeKB(), log:GetNumberOfOldCopies()))

local driver = norvi.open()
print("SetNorvi          " .. tostring(log:SetNorvi(driver)))

-- The agent's configuration table, as its scripts hold it.
local config = {
  packetFilterLog = { size = 1024, keep = 8, cacheSize = 128,
                      cacheLifetime = 1800000, cacheStaletime = 900000 },
  trafficAnalysisConfiguration = {},
  probeConfigurationMap = {},
  packetFilterMap = { [1042] = { name = "Block telnet", filterAction = 0 } },
  payloadFilterMap = { [4711] = { name = "Web Attack", severity = 2, identifier = "4711",
                                  incoming = true } },
  agentConfiguration = { hostID = 7, hostname = "demo-host" },
  interfaceMap = { ["001122334455"] = { name = "eth0", id = 3 } },
  driverInterfaceMap = { { id = 2, mac = "\0\17\34\51\68\85" } },
}
dom:ConditionRaise("app.configUpdated")

local base = 1700000000
local function packet(fields)
  local record = {
    time_sec = base, end_time_sec = base, count = 1, interface_index = 2,
    interface_mac = "\0\17\34\51\68\85", flags = 0x10 + 0x40,
    iph_proto = 6, iph_src = "192.0.2.7", iph_dest = "198.51.100.2",
    iph_total_len = 60, iph_frag_off = 0x4000, packet_len = 60,
    th_sport = 40123, th_dport = 23, tcph_flags = 0x02, action = 1, id = 1042,
  }
  for k, v in pairs(fields) do record[k] = v end
  return norvi.EncodeRecord(record)
end

local records = {
  { "denied telnet SYN", packet {} },
  { "the same SYN again", packet { time_sec = base + 5, end_time_sec = base + 5 } },
  { "denied UDP", packet { iph_proto = 17, th_dport = 161, tcph_flags = 0, time_sec = base + 1,
                           end_time_sec = base + 1, id = 0, reason = 3 } },
  { "a payload event", packet { reason = -500, id = 4711, action = 0x82, th_dport = 80,
                                note = "abc", log_flags = 0x08, packet_pos = 120,
                                stream_pos = 4096, time_sec = base + 2, end_time_sec = base + 2 } },
}
for _, item in ipairs(records) do
  print(string.format("WriteLogData %-20s %s", item[1],
                      tostring(log:WriteLogData(item[2], "", config, ""))))
end

-- A configuration update: the cache shrinks to nothing, so what is cached
-- is written and every later record becomes its own line.
config.packetFilterLog.cacheSize = 0
dom:ConditionRaise("app.configUpdated")
print(string.format("WriteLogData %-20s %s", "after cacheSize 0",
                    tostring(log:WriteLogData(packet { time_sec = base + 9,
                                                        end_time_sec = base + 9 }, "", config, ""))))
print("FlushBufferedData " .. tostring(log:FlushBufferedData(true)))

print("\nlines in " .. log:GetLogFileFullPath() .. ":")
local file = assert(io.open(log:GetLogFileFullPath(), "rb"))
for line in file:lines() do
  print("  " .. line:gsub("\r$", ""))
end
file:close()

for _, event in ipairs(dom:AgentEvents()) do
  print(string.format("agent event %d: %s", event.number, event.detail))
end
driver:close()
if not os.getenv("VEXIL_DEMO_DIR") then
  os.execute("rm -rf '" .. folder .. "'")
end
