-- vexil-agent on the bundled capture: the JSON summary (probes and the scanner
-- flagged once each, nothing for the TLS client), the key log that lets
-- tshark decrypt the HTTPS session by itself, and syslog delivered to a real
-- rsyslog (each transport on its own is in agent_syslog_spec).
local support = require "support"
local rsyslog = require "rsyslog"
local json = require "dkjson"

local SOURCE = os.getenv("VEXIL_SOURCE_DIR")
-- The agent runs on the Linux driver library, not on the other specs' stand-in.
local AGENT = "env -u NORVI_LIBRARY " .. os.getenv("VEXIL_BUILD_DIR") .. "/vexil-agent"

local function output_of(command)
  local pipe = io.popen(command)
  local text = pipe:read("*a")
  pipe:close()
  return text
end

-- The capture, its keys, host addresses and services, as the demo takes them.
local facts = {}
for key, value in (support.read(SOURCE .. "/examples/sample-capture.env") or ""):gmatch("\n(%u[%u_]*)=(%S+)") do
  facts[key] = value
end
local capture = facts.VEXIL_CAPTURE and SOURCE .. "/" .. facts.VEXIL_CAPTURE
local keys = facts.VEXIL_CAPTURE_KEYS and SOURCE .. "/" .. facts.VEXIL_CAPTURE_KEYS

-- Runs the agent on the capture (or another one, path); the decoded summary,
-- the standard error and the exit code.
local function replay(folder, extra, path)
  os.execute("mkdir -p " .. folder)
  local command = string.format(
    "cd %s && %s --pcap %s --host %s --services %s --keys %s --logs %s/logs --json %s " ..
    "2>%s/err; echo \"exit $?\"", SOURCE, AGENT, path or capture, facts.VEXIL_CAPTURE_HOST,
    facts.VEXIL_CAPTURE_SERVICES, keys, folder, extra or "", folder)
  local text, code = output_of(command):match("^(.-)exit (%d+)\n$")
  return json.decode(text), support.read(folder .. "/err"), tonumber(code)
end

describe("vexil-agent replay", function()
  if not capture or not support.read(capture) or not support.read(keys) then
    pending("the sample capture and its keys are not in examples/capture")
    return
  end
  local folder = support.tempdir()
  teardown(function() support.remove(folder) end)

  local summary, err = replay(folder, "--ssl-keylog " .. folder .. "/keys.log")

  it("reports each probe and the scanner once, with their blocks", function()
    assert.is_table(summary, err)
    assert.are.same({ 1441, 1441 }, { summary.records, summary.lines })
    -- All from 10.77.0.2 (the scan's own counts aside).
    local events = {}
    for index, event in ipairs(summary.events) do
      events[index] = event.number .. " " .. event.detail:gsub("^(HostOrPortScan|.-|3600)|.*$", "%1")
    end
    table.sort(events)
    assert.are.same({ "7000 FingerprintScan|10.77.0.2|6|600", "7001 HostOrPortScan|10.77.0.2|6|3600",
                      "7002 NullScan|10.77.0.2|6|600", "7003 SynFinScan|10.77.0.2|6|600",
                      "7004 XmasScan|10.77.0.2|6|600" }, events)
    -- Replay only reports blocks: one per event, none carried out.
    table.sort(summary.blocks, function(a, b) return a.seconds < b.seconds end)
    local probe = { address = "10.77.0.2", seconds = 600, ok = false }
    assert.are.same({ probe, probe, probe, probe, { address = "10.77.0.2", seconds = 3600, ok = false } },
                    summary.blocks)
  end)

  it("writes a key log that decrypts the TLS session in tshark by itself", function()
    assert.are.same({ requests = 1, answered = 1, failed = 0, keylog = folder .. "/keys.log" },
                    summary.ssl)
    local keylog = support.read(folder .. "/keys.log")
    assert.is_truthy(keylog:match("^RSA " .. ("%x"):rep(16) .. " " .. ("%x"):rep(96) .. "\n$"), keylog)
    if os.execute("command -v tshark >/dev/null") ~= true then
      pending("tshark is not installed: the decryption is not checked")
      return
    end
    local fields = "-T fields -e ip.src -e http.request.method -e http.request.uri " ..
                   "-Y 'tcp.port == 443 && http.request'"
    local plain = output_of(string.format("tshark -r %s %s 2>/dev/null", capture, fields))
    assert.are.equal("", plain, "without the key log the session is not readable")
    local decrypted = output_of(string.format("tshark -r %s -o tls.keylog_file:%s/keys.log %s 2>/dev/null",
                                              capture, folder, fields))
    -- A request of the benign client, which no event names.
    assert.is_truthy(decrypted:match("^10%.77%.0%.3\t%u+\t"), decrypted)
  end)

  it("takes the user's configuration instead of the bundled one", function()
    local config = folder .. "/xmas-only.lua"
    support.put(config, [[return {
      packetFilterLog = { size = 1024, keep = 8, cacheSize = 0 },
      trafficAnalysisConfiguration = {},
      probeConfigurationMap = { [4] = { blockAttackerSeconds = 0 } },
    }]])
    local run = replay(folder .. "/xmas", "--config " .. config)
    assert.are.same({ { number = 7004, detail = "XmasScan|10.77.0.2|6|0" } }, run.events)
    assert.are.equal(0, #run.blocks)
  end)

  it("reports what it could of a damaged capture, and refuses what is none", function()
    -- The first packets of HTTP and DNS.
    local damaged, err, code = replay(folder .. "/cut", "", SOURCE .. "/tests/data/cut-short.pcapng")
    assert.are.equal(1, code, err)
    assert.are.same({ 2, 0 }, { damaged.records, damaged.source_counters.dropped })
    assert.is_truthy(damaged.error:find("damaged capture file", 1, true), damaged.error)
    local none
    none, err, code = replay(folder .. "/none", "", SOURCE .. "/tests/data/not-a-capture.pcap")
    assert.are.same({ 2, nil }, { code, none })
    assert.is_truthy(err:find("cannot be read", 1, true), err)
  end)

  describe("syslog", function()
    if not rsyslog.available() then
      pending("rsyslogd is not installed (Debian package rsyslog)")
      return
    end
    local receiver = rsyslog.start(folder)
    teardown(function() receiver:stop() end)

    it("delivers every accepted record, native over a Unix socket and CEF over TCP", function()
      local sent, total = {}, 0
      for _, case in ipairs { { "unix", "unix:" .. receiver.socket },
                              { "tcp", "tcp:127.0.0.1:" .. receiver.tcp .. " --cef" } } do
        local run, runErr = replay(folder .. "/" .. case[1], "--syslog " .. case[2])
        assert.is_table(run, runErr)
        assert.are.same({ run.accepted, 0 }, { run.syslog.sent, run.syslog.dropped })
        sent[case[1]], total = run.accepted, total + run.accepted
      end
      local counts = {}
      for _, record in ipairs(receiver:wait_for(total)) do
        local kind = record.msg:match("^REASON=") and "native" or record.msg:match("^CEF:0|") and "CEF"
        local key = table.concat({ record.input, record.app, kind or record.msg }, " ")
        counts[key] = (counts[key] or 0) + 1
      end
      assert.are.same({ ["imuxsock vexil native"] = sent.unix, ["imtcp vexil CEF"] = sent.tcp }, counts)
    end)
  end)
end)
