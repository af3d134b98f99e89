-- vexil-agent on live traffic, inside network namespaces that this spec makes:
-- a server, and a peer with an attacker's and a benign client's address, on
-- one veth pair with no route out. The attacker scans the server; the agent blocks it in
-- nftables, and the benign client still gets through. The namespaces, the
-- ruleset and every process go at the end.
local support = require "support"
local signal = require "posix.signal"
local wait = require "posix.sys.wait"
local unistd = require "posix.unistd"

-- The agent runs on the Linux driver library, not on the other specs' stand-in.
local AGENT = "env -u NORVI_LIBRARY " .. os.getenv("VEXIL_BUILD_DIR") .. "/vexil-agent"
local SUFFIX = tostring(unistd.getpid())
local SERVER, PEER, LINK = "vxa-s" .. SUFFIX, "vxa-p" .. SUFFIX, "vxa" .. SUFFIX
local SERVER_IP, ATTACKER_IP, BENIGN_IP = "10.231.1.1", "10.231.1.2", "10.231.1.3"
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

local function remove_namespaces() sh("ip netns del " .. SERVER .. " 2>/dev/null; ip netns del " .. PEER) end

-- The two namespaces and their link; false and why when they cannot be made.
local function make_namespaces()
  if unistd.geteuid() ~= 0 then return false, "needs root for network namespaces" end
  if not sh("command -v nft && command -v nc && command -v nmap") then
    return false, "nft, nc and nmap are needed (Debian nftables, netcat-openbsd, nmap)"
  end
  local ok = sh("ip netns add " .. SERVER) and sh("ip netns add " .. PEER) and
    sh(string.format("ip link add %sa netns %s type veth peer name %sb netns %s", LINK, SERVER, LINK, PEER))
  for _, step in ipairs { { SERVER, "ip addr add " .. SERVER_IP .. "/24 dev " .. LINK .. "a" },
                          { PEER, "ip addr add " .. ATTACKER_IP .. "/24 dev " .. LINK .. "b" },
                          { PEER, "ip addr add " .. BENIGN_IP .. "/24 dev " .. LINK .. "b" },
                          { SERVER, "ip link set " .. LINK .. "a up" }, { SERVER, "ip link set lo up" },
                          { PEER, "ip link set " .. LINK .. "b up" }, { PEER, "ip link set lo up" } } do
    ok = ok and in_ns(step[1], step[2])
  end
  if not ok then
    remove_namespaces()
    return false, "cannot make and link network namespaces here"
  end
  return true
end

-- Whether check() comes true within tries, pause seconds apart.
local function eventually(check, tries, pause)
  for _ = 1, tries do
    if check() then return true end
    os.execute("sleep " .. pause)
  end
  return false
end

local function connects(from)
  return in_ns(PEER, "nc -z -w 1 -s " .. from .. " " .. SERVER_IP .. " 8080")
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
    assert.is_true(eventually(function() return in_ns(SERVER, "nft list table inet vexil") end, 100, 0.1),
                   "the agent installs table inet vexil: " .. (support.read(output .. ".err") or ""))
    assert.is_true(connects(ATTACKER_IP), "the allowed service answers before the scan")

    assert.is_true(in_ns(PEER, string.format("timeout 60 nmap -n -Pn -sS -T4 --max-retries 0 " ..
                                             "-S %s -e %sb -p 1000-1300 %s", ATTACKER_IP, LINK, SERVER_IP)))
    assert.is_true(eventually(function() return not connects(ATTACKER_IP) end, 12, 1),
                   "the scanner's connection is dropped")
    assert.is_true(connects(BENIGN_IP), "another address still gets through")

    stop(agent, signal.SIGINT)
    agent = nil
    assert.is_false(in_ns(SERVER, "nft list table inet vexil"), "the ruleset is removed at exit")
    local summary = require("dkjson").decode(support.read(output))
    assert.is_table(summary, support.read(output .. ".err"))
    -- The block of the scanner's event (an hour), carried out.
    assert.are.same({ { address = ATTACKER_IP, seconds = 3600, ok = true } }, summary.blocks)
    assert.is_truthy(summary.records >= 300)
  end)
end)
