-- The library in brief: a host store, one log object, a few driver records
-- through the log path, a port scan on the manual clock, and what came of it.
-- Run from a built checkout: LUA_CPATH="build/?.so;;" lua5.2 examples/agent.lua
-- (vexil-agent does all of this, and more, for captures and live traffic.)
local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"

local folder = io.popen("mktemp -d /tmp/vexil-example-XXXXXX"):read("*l")
local dom = SLB.norv.Dom(":memory:")
local log = SLB.vexil.LogData(dom)
log:SetLogFilePath(folder)
assert(log:InitializeLogFile())

local config = {
  packetFilterLog = { size = 1024, keep = 8, cacheSize = 128, cacheLifetime = 1800000,
                      cacheStaletime = 900000 },
  trafficAnalysisConfiguration = {},
  probeConfigurationMap = { [1] = { blockAttackerSeconds = 3600 }, [4] = { blockAttackerSeconds = 600 } },
  platformInterfaceMap = { ["198.51.100.2"] = {} },
  agentConfiguration = { hostID = 7 },
}

-- An inbound TCP packet to 198.51.100.2 that the filter denied.
local function denied(source, port, tcpFlags, second)
  return norvi.EncodeRecord {
    time_sec = 1700000000 + second, end_time_sec = 1700000000 + second, count = 1,
    flags = 0x50, iph_proto = 6, iph_src = source, iph_dest = "198.51.100.2",
    iph_total_len = 40, th_sport = 51000, th_dport = port, tcph_flags = tcpFlags,
    action = 1, reason = 3,
  }
end

norv.SetTicks(1000000)
log:WriteLogData(denied("203.0.113.5", 80, 0xFF, 0), "", config, "")   -- a Xmas probe
for port = 1, 100 do                                                    -- a port scan
  log:WriteLogData(denied("192.0.2.99", 1000 + port, 0x02, 1), "", config, "")
end
print("syslog text: " .. log:SyslogFormat(denied("203.0.113.5", 80, 0xFF, 0), "", config))
norv.AdvanceTicks(10001)            -- the time bin runs out ...
log:CacheMaintenance(config)        -- ... and the scanner is scored
log:FlushBufferedData(true)

for _, event in ipairs(dom:AgentEvents()) do
  print(string.format("agent event %d: %s", event.number, event.detail))
end
local lines = 0
for _ in io.lines(log:GetLogFileFullPath()) do lines = lines + 1 end
print(string.format("%d lines in %s", lines, log:GetLogFileFullPath()))
os.execute("rm -rf '" .. folder .. "'")
