-- vexil-agent: runs the log pipeline, the traffic analysis and the SSL key
-- service of vexil on a capture (replay) or on live traffic (NFLOG), delivers
-- syslog, blocks attackers, writes TLS key logs and prints a summary.
--
-- All work happens on this one Lua thread but for the SSL service's own
-- threads: records come from the driver interface's handle, go through
-- WriteLogData, and CacheMaintenance runs once per second of capture time
-- (replay, on the manual tick clock) or wall time (live).
local options = require "vexil_agent.options"
local configuration = require "vexil_agent.configuration"
local report = require "vexil_agent.report"
local syslog = require "vexil_agent.syslog"
local json = require "vexil_agent.json"
local signal = require "posix.signal"
local unistd = require "posix.unistd"
local ptime = require "posix.time"
local dirent = require "posix.dirent"
local stat = require "posix.sys.stat"

local PROGRAM = "vexil-agent"
-- Where the manual clock starts in a replay.
local START_TICKS = 1000000
-- At most this many seconds of an idle stretch of a capture are played out
-- one by one; beyond that the clock jumps.
local MAX_IDLE_SECONDS = 3600
-- How long a live read waits for a record before the loop looks around.
local LIVE_WAIT_MS = 200

-- Paths that the agent made for itself and removes on any way out.
local temporary = {}
local function remove_temporary()
  for i = #temporary, 1, -1 do os.remove(temporary[i]) end
end

local function fail(message, code)
  remove_temporary()
  io.stderr:write(PROGRAM, ": ", message, "\n")
  os.exit(code or 2)
end

local function monotonic()
  local t = ptime.clock_gettime(ptime.CLOCK_MONOTONIC)
  return t.tv_sec + t.tv_nsec / 1e9
end

local function read_file(path)
  local file, reason = io.open(path, "rb")
  if not file then return nil, reason end
  local text = file:read("*a")
  file:close()
  return text
end

local function machine_hostname()
  local text = read_file("/proc/sys/kernel/hostname")
  return text and text:match("^%s*(%S+)") or "-"
end

-- The host's own addresses, as the system lists them (live mode).
local function system_addresses()
  local found = {}
  local pipe = io.popen("ip -o addr show 2>/dev/null")
  if pipe then
    for line in pipe:lines() do
      local address = line:match("%sinet6?%s+([^/%s]+)")
      if address then found[#found + 1] = address end
    end
    pipe:close()
  end
  return found
end

-- Seconds and microseconds of a driver record (little-endian, offsets 0, 4),
-- and whether it is a payload record (negative reason at offset 22).
local function record_facts(record)
  local s1, s2, s3, s4, u1, u2, u3, u4 = record:byte(1, 8)
  local seconds = s1 + s2 * 256 + s3 * 65536 + s4 * 16777216
  local microseconds = u1 + u2 * 256 + u3 * 65536 + u4 * 16777216
  local reasonHigh = record:byte(24)
  return seconds, microseconds, (reasonHigh or 0) >= 128
end

---------------------------------------------------------------------------
-- Set-up: every check before any work.

local o, problem = options.parse(arg)
if not o then fail(problem) end
if o.help then io.stdout:write(options.USAGE) os.exit(0) end
if o.version then io.stdout:write(PROGRAM, " ", options.VERSION, "\n") os.exit(0) end

-- With --json, standard output holds the summary alone.
local say = o.json and io.stderr or io.stdout

local config
if o.config then
  config, problem = configuration.load(o.config)
  if not config then fail("bad configuration: " .. problem) end
else
  config = configuration.default()
end

local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"

local dom = SLB.norv.Dom(":memory:")
if o.base then dom:SetSetting("norv.baseFolder", o.base) end
-- Settings are read when the objects are made, so they go in first.
for _, setting in ipairs(o.settings) do dom:SetSetting(setting.key, setting.value) end

-- The security configuration and the servers whose handshakes are decrypted.
local sslHosts
if o.keys then
  local text = assert(read_file(o.keys))
  if not dom:SetConfigXml(text) then fail(o.keys .. ": not well-formed XML") end
  local list, reason = SLB.vexil.SSLHostConfigurations.Read(dom)
  if not list then fail(o.keys .. ": " .. reason) end
  sslHosts = {}
  for _, host in ipairs(list) do
    if host.specificIP ~= "" then
      sslHosts[#sslHosts + 1] = { address = host.specificIP, id = host.id }
    elseif host.allInterfaces then
      sslHosts[#sslHosts + 1] = { id = host.id }
    end
  end
  if #sslHosts == 0 then
    fail(o.keys .. ": no SSL host configuration with specificIP or allInterfaces")
  end
end

-- The host's own addresses are never blocked.
if o.mode == "live" and #o.addresses == 0 then o.addresses = system_addresses() end
config.platformInterfaceMap = config.platformInterfaceMap or {}
for _, address in ipairs(o.addresses) do config.platformInterfaceMap[address] = {} end
config.agentConfiguration = config.agentConfiguration or { hostID = 0 }
config.agentConfiguration.hostname = config.agentConfiguration.hostname or machine_hostname()

local sender
if o.destination then
  if o.cef then
    dom:SetSetting("norv.syslog.cef", true)
    dom:SetSetting("norv.syslog.format", 2)
  end
  sender, problem = syslog.new(o.destination, { facility = o.facility_code,
                                                hostname = machine_hostname(), max = o.syslog_max })
  if not sender then fail("--syslog: " .. problem) end
end

local log = SLB.vexil.LogData(dom)
if o.logs then log:SetLogFilePath(o.logs) end
local folder = log:GetLogFilePath()
-- From here on a stop request ends the run the clean way (the ruleset and the
-- SSL service go, the summary comes), even while the set-up is still going.
local stopRequested = false
local function request_stop() stopRequested = true end
signal.signal(signal.SIGINT, request_stop)
signal.signal(signal.SIGTERM, request_stop)
signal.signal(signal.SIGPIPE, signal.SIG_IGN)

-- The SSL service answers the requests of this process's driver interface;
-- ssl counts them for the summary.
local ssl = { requests = 0, answered = 0, failed = 0 }
local service, sslSocket
if sslHosts then
  if type(norvi.listen_ssl) ~= "function" then
    fail("this driver library has no SSL socket server (norvi.listen_ssl)")
  end
  sslSocket = o["ssl-socket"]
  if not sslSocket then
    local pipe = io.popen("mktemp -d /tmp/vexil-agent-XXXXXX")
    local sslFolder = pipe:read("*l")
    pipe:close()
    sslSocket = sslFolder .. "/ssl.sock"
    temporary = { sslFolder, sslSocket }
  end
  local called, result, reason = pcall(norvi.listen_ssl, sslSocket)
  if not called or (result == nil and reason ~= nil) then
    fail("cannot serve SSL requests at " .. sslSocket .. ": " .. tostring(called and reason or result))
  end
  service = SLB.vexil.SSLCertThread(dom)
  service:start(0, true, 0)
end

-- Ends the SSL service and its socket, whichever way the run ends.
local function stop_ssl_service()
  if not service then return end
  if o.nflog_group then
    -- Live, the requests come from other processes: the socket counts them.
    local counts = norvi.ssl_counters()
    if counts then
      ssl.requests, ssl.answered = counts.requests, counts.answered
      ssl.failed = counts.orphaned + counts.refused + counts.dropped
    end
  end
  service:StopThread("ssl")
  pcall(norvi.listen_ssl, "")  -- the socket stops taking requests
  os.remove(sslSocket)
  service = nil
end

local openOptions = { services = o.services, ssl_socket = sslSocket }
if o.mode == "replay" then
  -- The replay submits the handshakes of these servers as SSL requests.
  openOptions.pcap, openOptions.host, openOptions.ssl_hosts = o.pcap, o.addresses, sslHosts
else
  openOptions.nflog, openOptions.install = o.nflog_group, true
end
local opened, handle, reason = pcall(norvi.open, openOptions)
if not opened or not handle then
  reason = opened and reason or handle
  stop_ssl_service()
  fail(reason)
end
if o.block == "nft" then log:SetNorvi(handle) end

-- Files are made once the driver interface has started, so that a refusal
-- there leaves nothing behind; a failure here takes the ruleset away again.
local function abandon(message)
  handle:close()
  stop_ssl_service()
  fail(message)
end
-- (It makes the folder too; the host's operator log tells why it could not.)
if not log:InitializeLogFile() then abandon("cannot make the log file in " .. folder) end
local operatorLog = io.open(folder .. "/operator.log", "ab")
local keylog
if o["ssl-keylog"] then
  keylog, problem = io.open(o["ssl-keylog"], "ab")
  if not keylog then abandon("cannot write the key log: " .. problem) end
end

---------------------------------------------------------------------------
-- The run.

local counts = { records = 0, accepted = 0 }

local function take_keylog()
  if not sslHosts then return end
  local lines, failed = handle:keylog()
  for _, line in ipairs(lines or {}) do
    if keylog then keylog:write(line, "\n") end
    ssl.answered = ssl.answered + 1
  end
  if keylog and #(lines or {}) > 0 then keylog:flush() end
  if failed then ssl.failed = math.max(ssl.failed, failed) end
  ssl.requests = ssl.answered + ssl.failed
end

-- The host prints its operator log (agent events, failures with their
-- reasons) on standard error; the agent keeps a copy in the log folder.
local function take_operator_log()
  for _, line in ipairs(norv.OperatorLog()) do
    if operatorLog then operatorLog:write(os.date("!%Y-%m-%dT%H:%M:%SZ "), line, "\n") end
  end
  if operatorLog then operatorLog:flush() end
end

local function handle_record(record, data, packet)
  counts.records = counts.records + 1
  local accepted = log:WriteLogData(record, data, config, packet)
  if accepted then
    counts.accepted = counts.accepted + 1
    if sender then
      local seconds, microseconds, payload = record_facts(record)
      sender:send(log:SyslogFormat(record, data, config), payload and 4 or 5, seconds,
                  microseconds, payload and "payload" or "packet")
    end
  end
end

-- Replay: the tick clock follows the capture's time stamps, and
-- CacheMaintenance runs for every second of capture time that passes.
local clock = {}
local function ticks_at(ms) return (START_TICKS + ms - clock.origin) % 4294967296 end
local function advance_clock(ms)
  if not clock.origin then
    clock.origin, clock.last, clock.nextSecond = ms, ms, ms + 1000
    norv.SetTicks(START_TICKS)
    return
  end
  if ms < clock.last then ms = clock.last end
  local played = 0
  while clock.nextSecond <= ms do
    norv.SetTicks(ticks_at(clock.nextSecond))
    log:CacheMaintenance(config)
    clock.nextSecond = clock.nextSecond + 1000
    played = played + 1
    if played == MAX_IDLE_SECONDS then
      clock.nextSecond = clock.nextSecond + math.floor((ms - clock.nextSecond) / 1000) * 1000
    end
  end
  norv.SetTicks(ticks_at(ms))
  clock.last = ms
end

-- Progress of a replay, on a terminal only: how far the driver interface has
-- read the capture, by the position of its open file (the file is found among
-- this process's descriptors by its inode).
local progress = { shown = false, started = monotonic(), next = monotonic() + 2 }
if o.mode == "replay" and unistd.isatty(2) == 1 then
  local info = stat.stat(o.pcap)
  progress.size, progress.inode = info.st_size, info.st_ino
end
local function capture_position()
  if progress.fdinfo then
    return tonumber((read_file(progress.fdinfo) or ""):match("pos:%s*(%d+)"))
  end
  for name in dirent.files("/proc/self/fdinfo") do
    local text = read_file("/proc/self/fdinfo/" .. name) or ""
    if tonumber(text:match("ino:%s*(%d+)")) == progress.inode then
      progress.fdinfo = "/proc/self/fdinfo/" .. name
      return tonumber(text:match("pos:%s*(%d+)"))
    end
  end
end
local function show_progress()
  local now = monotonic()
  if not progress.size or progress.size == 0 or now < progress.next then return end
  progress.next = now + 0.5
  local position = capture_position()
  if not position then return end
  progress.shown = true
  io.stderr:write(string.format("\r%s: %3d%% of %s, %d records/s   ", PROGRAM,
                                math.min(100, math.floor(100 * position / progress.size)), o.pcap,
                                math.floor(counts.records / (now - progress.started))))
end

local function replay()
  while not stopRequested do
    local record, data, packet = handle:next(0)
    if not record then
      if data == "end" then return end
      if data ~= "timeout" then return packet or data end
    else
      local seconds, microseconds = record_facts(record)
      advance_clock(seconds * 1000 + math.floor(microseconds / 1000))
      handle_record(record, data, packet)
      if counts.records % 256 == 0 then
        take_keylog()
        show_progress()
      end
    end
  end
end

-- After the capture: time runs on until the open time bin has closed and
-- the analysis holds no open flows, so that the capture's scanners count.
local function run_on()
  if not clock.origin then return end
  local bin = tonumber(dom:GetSetting("norvp.vexil.analysis.ScanTimeBinMillisec") or "") or 10000
  local seconds = math.ceil(bin / 1000) + 1
  for second = 1, seconds + MAX_IDLE_SECONDS do
    clock.last = clock.last + 1000
    norv.SetTicks(ticks_at(clock.last))
    if not log:CacheMaintenance(config) and second > seconds then break end
  end
end

local function live()
  local deadline = o.duration_seconds and monotonic() + o.duration_seconds
  local nextSecond = monotonic() + 1
  while not stopRequested do
    local now = monotonic()
    if deadline and now >= deadline then return end
    local record, data, packet = handle:next(LIVE_WAIT_MS)
    if record then
      handle_record(record, data, packet)
    elseif data ~= "timeout" and data ~= "end" and not stopRequested then
      -- (A signal that ends the wait is a stop, not a failure.)
      return packet or data
    end
    now = monotonic()
    if now >= nextSecond then
      nextSecond = math.max(nextSecond + 1, now)
      log:CacheMaintenance(config)
      take_keylog()
      take_operator_log()
      if sender then sender:poll() end
    end
  end
end

-- A failure of the run still ends with the clean-up and the summary.
local ran, runError = pcall(o.mode == "replay" and replay or live)
if not ran then runError = tostring(runError) end
if progress.shown then io.stderr:write("\n") end
if o.mode == "replay" then run_on() end
log:FlushBufferedData(true)

-- Answers still on their way are given a moment.
if sslHosts then
  local deadline = monotonic() + 2
  repeat
    local before = ssl.answered + ssl.failed
    ptime.nanosleep { tv_sec = 0, tv_nsec = 100000000 }
    take_keylog()
  until ssl.answered + ssl.failed == before or monotonic() > deadline
end
stop_ssl_service()
if sender then sender:close(2) end
local sourceCounters = handle:counters()
handle:close()
if keylog then keylog:close() end
if o.mode == "replay" then norv.RealTicks() end
remove_temporary()
take_operator_log()

---------------------------------------------------------------------------
-- The summary.

local function log_files()
  local files = json.array()
  local names = {}
  for name in dirent.files(folder) do
    local info = stat.stat(folder .. "/" .. name)
    if info and stat.S_ISREG(info.st_mode) ~= 0 then names[#names + 1] = name end
  end
  table.sort(names)
  local lines = 0
  local base = log:GetLogFileName()
  for _, name in ipairs(names) do
    local text = read_file(folder .. "/" .. name) or ""
    files[#files + 1] = { name = name, bytes = #text }
    if name:sub(1, #base) == base then
      lines = lines + select(2, text:gsub("\n", ""))
    end
  end
  return files, lines
end

local events = dom:AgentEvents()
local files, lines = log_files()
local summary = {
  source = o.pcap or ("NFLOG group " .. o.nflog_group),
  mode = o.mode,
  records = counts.records,
  accepted = counts.accepted,
  lines = lines,
  events = report.events(events),
  blocks = report.blocks(events, config, o.block == "nft"),
  block_mode = o.block,
  heartbeats = dom:ConditionCount("norv.HeartbeatNow"),
  source_counters = sourceCounters,
  syslog = sender and { destination = o.syslog, sent = sender.sent, dropped = sender.dropped,
                        truncated = sender.truncated } or { sent = 0, dropped = 0, truncated = 0 },
  ssl = { requests = ssl.requests, answered = ssl.answered, failed = ssl.failed,
          keylog = o["ssl-keylog"] },
  logs = { folder = folder, files = files },
  -- A replay that a signal ended has not seen the whole capture.
  interrupted = stopRequested and o.mode == "replay" or nil,
  error = runError,
}
if not sender then summary.syslog.destination = nil end

if o.json then
  io.stdout:write(report.json(summary), "\n")
else
  for _, line in ipairs(report.words(summary)) do say:write(line, "\n") end
end
if runError then
  io.stderr:write(PROGRAM, ": stopped early: ", runError, "\n")
  os.exit(1)
end
os.exit(0)
