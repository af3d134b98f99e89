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

-- Read-back by time span, as the agent collects lines for the management
-- side, and the syslog text of a packet and a payload record in both forms.
print(string.format("\nGetLogData %d to %d, packet lines:", base, base + 60))
io.write(log:GetLogData(base, base + 60, 0, 100))
print("GetLogData, payload lines:")
io.write(log:GetLogData(base, base + 60, 1, 100))
dom:SetSetting("norv.syslog.hostname", "demo-host")
for _, form in ipairs { { "native", false, 0 }, { "CEF", true, 2 } } do
  dom:SetSetting("norv.syslog.cef", form[2])
  dom:SetSetting("norv.syslog.format", form[3])
  print(string.format("syslog %-6s packet:  %s", form[1],
                      log:SyslogFormat(records[1][2], "", config)))
  print(string.format("syslog %-6s payload: %s", form[1],
                      log:SyslogFormat(records[4][2], "", config)))
end
driver:close()
if not os.getenv("VEXIL_DEMO_DIR") then
  os.execute("rm -rf '" .. folder .. "'")
end

-- Traffic analysis on the manual clock: a NULL and a Xmas probe, and a port
-- scan spread over several time bins, with the agent events and the block
-- requests that they bring.
do
  print("\ntraffic analysis:")
  norv.SetTicks(1000000)
  local pipe = io.popen("mktemp -d /tmp/vexil-demo-XXXXXX")
  local home = pipe:read("*l")
  pipe:close()
  local adom = SLB.norv.Dom(":memory:")
  adom:SetSetting("norv.baseFolder", home)
  local analysed = SLB.vexil.LogData(adom)
  local handle = norvi.open()
  analysed:SetNorvi(handle)
  local aconfig = {
    packetFilterLog = { size = 1024, keep = 8, cacheSize = 128,
                        cacheLifetime = 1800000, cacheStaletime = 900000 },
    trafficAnalysisConfiguration = { whitelistIpList = { items = "10.0.0.0/8", name = "office" } },
    probeConfigurationMap = {
      [0] = { blockAttackerSeconds = 600, notifyImmediately = true },
      [1] = { blockAttackerSeconds = 3600, notifyImmediately = false },
      [2] = { blockAttackerSeconds = 600, notifyImmediately = true },
      [4] = { blockAttackerSeconds = 600, notifyImmediately = true },
    },
    platformInterfaceMap = { ["198.51.100.2"] = {} },
  }
  local function incoming(source, port, tcpFlags)
    return norvi.EncodeRecord({
      time_sec = base, end_time_sec = base, count = 1, flags = 0x10 + 0x40, iph_proto = 6,
      iph_src = source, iph_dest = "198.51.100.2", iph_total_len = 40, th_sport = 51000,
      th_dport = port, tcph_flags = tcpFlags, action = 1, reason = 3,
    })
  end
  local probes = {
    { "NULL probe from 203.0.113.5", "203.0.113.5", 0x00 },
    { "Xmas probe from 203.0.113.5", "203.0.113.5", 0xFF },
    { "the same Xmas probe again", "203.0.113.5", 0xFF },
    { "Xmas probe from 127.0.0.1", "127.0.0.1", 0x29 },
    { "NULL probe from the office", "10.1.2.3", 0x00 },
  }
  for _, item in ipairs(probes) do
    analysed:WriteLogData(incoming(item[2], 80, item[3]), "", aconfig, "")
    print(string.format("  %-28s events so far %d", item[1], #adom:AgentEvents()))
  end
  -- 192.0.2.99 tries five new ports of the server in each bin of 10 s.
  for bin = 1, 4 do
    for port = 1, 5 do
      analysed:WriteLogData(incoming("192.0.2.99", 1000 * bin + port, 0x02), "", aconfig, "")
    end
    norv.AdvanceTicks(10001)
    analysed:CacheMaintenance(aconfig)
    print(string.format("  bin %d of the port scan closed: events so far %d", bin,
                        #adom:AgentEvents()))
  end
  for _, event in ipairs(adom:AgentEvents()) do
    print(string.format("  agent event %d: %s", event.number, event.detail))
  end
  for _, request in ipairs(norvi.BlacklistRequests()) do
    print(string.format("  block request: %s for %d ms", request.address, request.milliseconds))
  end
  print(string.format("  heartbeats requested: %d", adom:ConditionCount("norv.HeartbeatNow")))
  handle:close()
  norv.RealTicks()
  os.execute("rm -rf '" .. home .. "'")
end

-- The SSL key service: a key made by the openssl command line, the service
-- started on it, a few requests as the driver would send them, their answers,
-- and the stop.
do
  print("\nSSL key service:")
  local pipe = io.popen("mktemp -d /tmp/vexil-demo-XXXXXX")
  local home = pipe:read("*l")
  pipe:close()
  local function openssl(command)
    return os.execute("cd '" .. home .. "' && (" .. command .. ") >/dev/null 2>&1")
  end
  assert(openssl("openssl genrsa -out web.pem 2048 && openssl rsa -in web.pem -pubout -out web.pub"))
  assert(openssl("printf 'a pre-master secret, 48 bytes long, for the demo' > secret.bin"))
  assert(openssl("openssl pkeyutl -encrypt -pubin -inkey web.pub -in secret.bin -out secret.ct"))
  local cipher = assert(io.open(home .. "/secret.ct", "rb")):read("*a")

  local sdom = SLB.norv.Dom(":memory:")
  sdom:SetConfigXml(string.format([[
<SecurityConfiguration>
  <SSLCredentials>
    <SSLCredential id="1" name="web server key" credentialType="PEM" identifier="%s/web.pem"/>
  </SSLCredentials>
  <SSLHostConfigurations>
    <SSLHostConfiguration id="7" name="intranet web" sslCredentialId="1"/>
  </SSLHostConfigurations>
</SecurityConfiguration>]], home))
  print("  RSAKey.Create:    " .. tostring(SLB.vexil.RSAKey.Create(string.format(
    '<SSLCredential credentialType="PEM" identifier="%s/web.pem"/>', home))))
  print("  PEM read as P12:  " .. table.concat({ select(2, SLB.vexil.RSAKey.Create(string.format(
    '<SSLCredential credentialType="P12" identifier="%s/web.pem" passphrase="x"/>', home))) },
    " "))
  print("  CAPI, no token:   " .. table.concat({ select(2, SLB.vexil.RSAKey.Create(
    '<SSLCredential credentialType="CAPI" identifier="demo-hsm;' .. string.rep("0", 40) ..
    '" passphrase="1234"/>')) }, " "))

  local service = SLB.vexil.SSLCertThread(sdom)
  service:start(50, true, 0)
  print("  service running: " .. tostring(service:isRunning()))

  local function u32(n)
    return string.char(n % 256, math.floor(n / 256) % 256, math.floor(n / 65536) % 256,
                       math.floor(n / 16777216) % 256)
  end
  -- Header: pre-master length, host configuration id, 56 bytes of context
  -- (here the request number first), key exchange 1 (RSA), version.
  local function header(length, id, number, major, minor)
    return u32(length) .. u32(id) .. u32(number) .. string.rep("\0", 52) .. u32(1) ..
           string.char(major, minor) .. string.rep("\0", 10)
  end
  local requests = {
    { "TLS 1.2, host configuration 7", header(#cipher + 2, 7, 1, 3, 3),
      string.char(math.floor(#cipher / 256), #cipher % 256) .. cipher },
    { "SSL 3.0, host configuration 7", header(#cipher, 7, 2, 3, 0), cipher },
    { "unknown host configuration 8", header(#cipher, 8, 3, 3, 0), cipher },
  }
  for _, request in ipairs(requests) do
    norvi.SubmitSslRequest(request[2], request[3])
  end
  local answers = {}
  for _ = 1, 300 do
    for _, response in ipairs(norvi.SslResponses()) do
      answers[response:byte(9)] = response
    end
    if answers[1] and answers[2] and answers[3] then break end
    os.execute("sleep 0.01")
  end
  for number, request in ipairs(requests) do
    local response = answers[number]
    local length = response and response:byte(1) + response:byte(2) * 256 or 0
    print(string.format("  %-32s -> %s", request[1],
                        response == nil and "no answer" or length == 0 and "failure response" or
                        string.format("%d byte secret %q", length, response:sub(65, 64 + length))))
  end
  service:StopThread("ssl")
  print("  service running: " .. tostring(service:isRunning()))
  for _, line in ipairs(norv.OperatorLog()) do
    if line:find("GetKey") then print("  log: " .. line) end
  end
  os.execute("rm -rf '" .. home .. "'")
end
