-- vexil-agent on the bundled capture: the JSON summary (probes and the scanner
-- flagged once each, nothing for the TLS client), the key log that lets
-- tshark decrypt the HTTPS session by itself, and syslog delivered to a real
-- rsyslog (each transport on its own is in agent_syslog_spec).
local support = require "support"
local rsyslog = require "rsyslog"
local json = require "dkjson"

local SOURCE = os.getenv("VEXIL_SOURCE_DIR")
-- The agent runs on the Linux driver library beside the host core, not on
-- the stand-in that the other specs are given.
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

-- Runs the agent on the capture (keysFile, when given, instead of the sample's
-- security configuration); the decoded summary and the standard error.
local function replay(folder, extra, keysFile)
  os.execute("mkdir -p " .. folder)
  local command = string.format(
    "cd %s && %s --pcap %s --host %s --services %s --keys %s --logs %s/logs --json %s " ..
    "2>%s/err", SOURCE, AGENT, capture, facts.VEXIL_CAPTURE_HOST, facts.VEXIL_CAPTURE_SERVICES,
    keysFile or keys, folder, extra or "", folder)
  local summary = json.decode(output_of(command))
  return summary, support.read(folder .. "/err")
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
    assert.is_truthy(summary.records > 0 and summary.lines > 0)
    local seen, kinds = {}, {}
    for _, event in ipairs(summary.events) do
      local address = event.detail:match("^[^|]*|([^|]*)|")
      local key = event.number .. " " .. tostring(address)
      assert.is_nil(seen[key], "flagged twice: " .. key)
      seen[key] = true
      kinds[event.number] = (kinds[event.number] or 0) + 1
    end
    assert.are.equal(1, kinds[7001], "one scanner")
    assert.is_truthy((kinds[7002] or 0) + (kinds[7003] or 0) + (kinds[7004] or 0) >= 1,
                     "stealth probes")
    -- Replay only reports blocks: one per probe event, none carried out.
    assert.are.equal(#summary.events, #summary.blocks)
    for _, block in ipairs(summary.blocks) do
      assert.is_false(block.ok)
      assert.is_truthy(block.seconds == 600 or block.seconds == 3600)
    end
  end)

  it("writes a key log that decrypts the TLS session in tshark by itself", function()
    assert.are.same({ requests = 1, answered = 1, failed = 0 },
                    { requests = summary.ssl.requests, answered = summary.ssl.answered,
                      failed = summary.ssl.failed })
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
    local client, method = decrypted:match("^(%S+)\t(%u+)\t")
    assert.is_truthy(method, decrypted)
    -- The TLS client is the benign source: no event names it.
    for _, event in ipairs(summary.events) do
      assert.is_falsy(event.detail:find("|" .. client .. "|", 1, true), event.detail)
    end
  end)

  it("takes the user's configuration instead of the bundled one", function()
    local config = folder .. "/xmas-only.lua"
    local file = assert(io.open(config, "w"))
    file:write([[return {
      packetFilterLog = { size = 1024, keep = 8, cacheSize = 0 },
      trafficAnalysisConfiguration = {},
      probeConfigurationMap = { [4] = { blockAttackerSeconds = 0 } },
    }]])
    file:close()
    local run = replay(folder .. "/xmas", "--config " .. config)
    assert.are.equal(1, #run.events)
    assert.is_truthy(run.events[1].detail:match("^XmasScan|10%.77%.0%.2|6|0$"), run.events[1].detail)
    assert.are.equal(0, #run.blocks)
  end)

  it("reports what it could of a damaged capture, and refuses what is none", function()
    -- The exit code, the standard output and the standard error.
    local function run(name)
      local command = string.format("%s --pcap %s/tests/data/%s --host %s --logs %s/%s --json " ..
                                    "2>%s/%s.err; echo \"exit $?\"", AGENT, SOURCE, name,
                                    facts.VEXIL_CAPTURE_HOST, folder, name, folder, name)
      local text = output_of(command)
      return tonumber(text:match("exit (%d+)\n$")), text, support.read(folder .. "/" .. name .. ".err")
    end
    -- The first packets of HTTP and DNS (all inbound is logged: no services).
    local code, text, err = run("cut-short.pcapng")
    assert.are.equal(1, code, err)
    local summary = json.decode(text:match("^(.-)exit"))
    assert.are.same({ 4, 0 }, { summary.records, summary.source_counters.dropped })
    assert.is_truthy(summary.error:find("damaged capture file", 1, true), summary.error)
    code, text, err = run("not-a-capture.pcap")
    assert.are.same({ 2, "exit 2\n" }, { code, text })
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
      local byInput = { imuxsock = {}, imtcp = {} }
      for _, record in ipairs(receiver:wait_for(total)) do
        assert.are.equal("vexil", record.app)
        table.insert(byInput[record.input], record.msg)
      end
      assert.are.same({ sent.unix, sent.tcp }, { #byInput.imuxsock, #byInput.imtcp })
      for _, msg in ipairs(byInput.imuxsock) do assert.is_truthy(msg:match("^REASON="), msg) end
      for _, msg in ipairs(byInput.imtcp) do assert.is_truthy(msg:match("^CEF:0|"), msg) end
    end)
  end)
end)
