-- Shared set-up of the log path specs: a log object in its own folder, a
-- configuration table, records with defaults, and the file read back.
local support = require "support"
local norv = require "norv"
local norvi = require "norvi"
assert(require "vexil")

local logpath = {}

-- A fresh host store and log object writing to <folder>/norv_mpnp.
function logpath.new()
  local env = {}
  env.folder, env.dom, env.log = support.log_object()
  env.log:SetLogFilePath(env.folder)
  env.path = env.folder .. "/norv_mpnp"
  norv.SetTicks(1000000)
  return env
end

function logpath.finish(env)
  env.log = nil
  norv.RealTicks()
  norv.SetTrace("")
  support.drop_log(env.folder)
end

-- A configuration table; filterLog replaces the group packetFilterLog (by
-- default a cache of size 0: every record becomes a line at once).
function logpath.config(filterLog)
  return {
    packetFilterLog = filterLog or { cacheSize = 0 },
    trafficAnalysisConfiguration = {},
    probeConfigurationMap = {},
    driverInterfaceMap = { { id = 5, mac = "\0\17\34\51\68\85" } },
    interfaceMap = { ["001122334455"] = { id = 3, name = "eth0" } },
  }
end

-- Makes the next record read the configuration table again.
function logpath.update(env)
  env.dom:ConditionRaise("app.configUpdated")
end

-- An outgoing IPv4 UDP record with fixed times; fields override, false
-- removes a field.
function logpath.record(fields)
  local record = {
    time_sec = 1700000000, time_usec = 250, end_time_sec = 1700000002, end_time_usec = 750,
    count = 1, flags = 0x51, iph_proto = 17, iph_src = "10.1.2.3", iph_dest = "10.9.8.7",
    th_sport = 5353, th_dport = 53, packet_len = 80, interface_index = 5,
  }
  for name, value in pairs(fields or {}) do
    record[name] = value ~= false and value or nil
  end
  return norvi.EncodeRecord(record)
end

function logpath.write(env, fields, config, data, packet)
  return env.log:WriteLogData(logpath.record(fields), data or "", config or logpath.config(),
                              packet)
end

-- The lines of the live file, without line ends.
function logpath.lines(env)
  return support.lines(env.path)
end

-- Column n (1 to 31) of each line of the live file.
function logpath.column(env, n)
  local values = {}
  for i, line in ipairs(logpath.lines(env)) do
    local columns = {}
    for column in (line .. ", "):gmatch("(.-), ") do columns[#columns + 1] = column end
    values[i] = columns[n]
  end
  return values
end

function logpath.exists(path)
  return support.read(path) ~= nil
end

return logpath
