-- vexil-agent on live traffic, inside network namespaces that this spec makes:
-- a server, an attacker and a benign client, each on its own veth pair with
-- no route out. The attacker scans the server; the agent blocks it in
-- nftables, and the benign client still gets through. The namespaces, the
-- ruleset and every process go at the end.
local support = require "support"
local signal = require "posix.signal"
local wait = require "posix.sys.wait"
local unistd = require "posix.unistd"

-- The agent runs on the Linux driver library beside the host core, not on
-- the stand-in that the other specs are given.
local AGENT = "env -u NORVI_LIBRARY " .. os.getenv("VEXIL_BUILD_DIR") .. "/vexil-agent"
local SUFFIX = tostring(unistd.getpid())
local SERVER, ATTACKER, BENIGN = "vxa-s" .. SUFFIX, "vxa-a" .. SUFFIX, "vxa-b" .. SUFFIX
local SERVER_A, ATTACKER_IP = "10.231.1.1", "10.231.1.2"
local SERVER_B, BENIGN_IP = "10.231.2.1", "10.231.2.2"
local GROUP = 7

local function sh(command)
  return os.execute(command .. " >/dev/null 2>&1") == true
end

local function in_ns(ns, command)
  return sh("ip netns exec " .. ns .. " " .. command)
end

-- Starts a command in the background; its pid.
local function spawn(ns, command, output)
  local pid = unistd.fork()
  if pid == 0 then
    local shell = string.format("exec ip netns exec %s %s >%s 2>%s.err", ns, command,
                                output or "/dev/null", output or "/dev/null")
    unistd.exec("/bin/sh", { "-c", shell })
    unistd._exit(127)
  end
  return pid
end

local function stop(pid, sig)
  if pid then
    signal.kill(pid, sig or signal.SIGTERM)
    wait.wait(pid)
  end
end

local function remove_namespaces()
  for _, ns in ipairs { SERVER, ATTACKER, BENIGN } do sh("ip netns del " .. ns) end
end

-- The three namespaces and their links; false and why when they cannot be made.
local function make_namespaces()
  if unistd.geteuid() ~= 0 then return false, "needs root for network namespaces" end
  if not sh("command -v nft && command -v nc && command -v nmap") then
    return false, "nft, nc and nmap are needed (Debian nftables, netcat-openbsd, nmap)"
  end
  for _, ns in ipairs { SERVER, ATTACKER, BENIGN } do
    if not sh("ip netns add " .. ns) then
      remove_namespaces()
      return false, "cannot make network namespaces here"
    end
    in_ns(ns, "ip link set lo up")
  end
  local links = { { ATTACKER, "a", SERVER_A, ATTACKER_IP }, { BENIGN, "b", SERVER_B, BENIGN_IP } }
  for _, link in ipairs(links) do
    local ns, tag, serverIp, peerIp = link[1], link[2], link[3], link[4]
    local ok = sh(string.format("ip link add vs%s%s netns %s type veth peer name vp%s%s netns %s",
                                tag, SUFFIX, SERVER, tag, SUFFIX, ns))
      and in_ns(SERVER, string.format("ip addr add %s/24 dev vs%s%s", serverIp, tag, SUFFIX))
      and in_ns(SERVER, string.format("ip link set vs%s%s up", tag, SUFFIX))
      and in_ns(ns, string.format("ip addr add %s/24 dev vp%s%s", peerIp, tag, SUFFIX))
      and in_ns(ns, string.format("ip link set vp%s%s up", tag, SUFFIX))
    if not ok then
      remove_namespaces()
      return false, "cannot link the network namespaces"
    end
  end
  return true
end

local function connects(ns, server)
  return in_ns(ns, "nc -z -w 1 " .. server .. " 8080")
end

describe("vexil-agent live", function()
  local made, why = make_namespaces()
  if not made then
    pending("live test skipped: " .. why)
    return
  end
  local folder = support.tempdir()
  local server, agent

  teardown(function()
    stop(agent)
    stop(server)
    remove_namespaces()
    support.remove(folder)
  end)

  it("blocks a scanning address in nftables while others still get through", function()
    server = spawn(SERVER, "nc -k -l 8080")
    local output = folder .. "/summary.json"
    agent = spawn(SERVER, string.format(
      "%s --nflog %d --services tcp:8080 --duration 40 --json --logs %s/logs " ..
      "--setting norvp.vexil.analysis.ScanTimeBinMillisec=2000", AGENT, GROUP, folder), output)
    local installed = false
    for _ = 1, 100 do
      installed = in_ns(SERVER, "nft list table inet vexil")
      if installed then break end
      os.execute("sleep 0.1")
    end
    assert.is_true(installed, "the agent installs table inet vexil: " ..
                              (support.read(output .. ".err") or ""))
    assert.is_true(connects(ATTACKER, SERVER_A), "the allowed service answers before the scan")

    assert.is_true(in_ns(ATTACKER, "timeout 60 nmap -n -Pn -sS -T4 --max-retries 0 -p 1000-1300 " ..
                                   SERVER_A))
    local blocked = false
    for _ = 1, 12 do
      os.execute("sleep 1")
      if not connects(ATTACKER, SERVER_A) then
        blocked = true
        break
      end
    end
    assert.is_true(blocked, "the scanner's connection is dropped")
    assert.is_true(connects(BENIGN, SERVER_B), "another address still gets through")

    stop(agent, signal.SIGINT)
    agent = nil
    assert.is_false(in_ns(SERVER, "nft list table inet vexil"), "the ruleset is removed at exit")
    local summary = require("dkjson").decode(support.read(output))
    assert.is_table(summary, support.read(output .. ".err"))
    local scanner
    for _, event in ipairs(summary.events) do
      if event.number == 7001 then scanner = event.detail end
    end
    assert.is_truthy(scanner and scanner:find("|" .. ATTACKER_IP .. "|", 1, true))
    assert.are.same({ { address = ATTACKER_IP, seconds = 3600, ok = true } }, summary.blocks)
    assert.is_truthy(summary.records >= 300)
  end)
end)
