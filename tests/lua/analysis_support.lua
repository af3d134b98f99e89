-- Shared set-up of the traffic analysis specs: a log object on a manual
-- clock, a configuration table, and driver records built from a few fields.
local norv = require "norv"
assert(require "vexil")
local norvi = require "norvi"
local support = require "support"

local analysis = { START_TICKS = 1000000, BIN = 10000 }

-- The configuration table with the given probe map (ProbeType -> settings)
-- and trafficAnalysisConfiguration.
function analysis.configuration(probes, traffic)
  return {
    packetFilterLog = { size = 1024, keep = 8, cacheSize = 128, cacheLifetime = 1800000,
                        cacheStaletime = 900000 },
    trafficAnalysisConfiguration = traffic or {},
    probeConfigurationMap = probes,
    platformInterfaceMap = {},
  }
end

-- Every probe type enabled, no blocking, no heartbeat.
function analysis.all_probes()
  local probes = {}
  for probeType = 0, 4 do probes[probeType] = { blockAttackerSeconds = 0 } end
  return probes
end

-- An incoming IPv4 TCP SYN from 192.0.2.7 to 198.51.100.2:80, DF clear,
-- denied; fields override.
function analysis.record(fields)
  local record = {
    time_sec = 1700000000, end_time_sec = 1700000000, count = 1, flags = 0x50, iph_proto = 6,
    iph_src = "192.0.2.7", iph_dest = "198.51.100.2", iph_total_len = 40, th_sport = 40000,
    th_dport = 80, tcph_flags = 0x02, action = 1, reason = 3,
  }
  for name, value in pairs(fields or {}) do record[name] = value end
  return norvi.EncodeRecord(record)
end

-- A fresh host store and log object with a driver handle, the clock standing
-- at START_TICKS; settings are host settings made before the object.
function analysis.fixture(settings)
  norv.SetTicks(analysis.START_TICKS)
  local fixture = { driver = norvi.open() }
  fixture.folder, fixture.dom, fixture.log = support.log_object(settings)
  fixture.log:SetNorvi(fixture.driver)
  norvi.BlacklistRequests()

  function fixture:write(config, fields)
    return self.log:WriteLogData(analysis.record(fields), "", config, "")
  end

  -- The agent events since the last look, as "number detail" texts.
  function fixture:events()
    local texts = {}
    for i, event in ipairs(self.dom:AgentEvents()) do texts[i] = event.number .. " " .. event.detail end
    self.dom:ClearAgentEvents()
    return texts
  end

  -- Ends the open bin: the clock moves on by one bin and a millisecond.
  function fixture:close_bin(config)
    norv.AdvanceTicks(analysis.BIN + 1)
    return self.log:CacheMaintenance(config)
  end

  function fixture:finish()
    self.log = nil
    self.driver:close()
    support.drop_log(self.folder)
  end

  return fixture
end

return analysis
