-- vexil-agent's command line: each configuration mistake ends with one clear
-- line on standard error and exit code 2, before any work (no log folder).
-- (The host's own operator log may stand before that line.)
local support = require "support"

-- The agent runs on the Linux driver library, not on the other specs' stand-in.
local AGENT = "env -u NORVI_LIBRARY " .. os.getenv("VEXIL_BUILD_DIR") .. "/vexil-agent"

local function run(arguments, prefix)
  local folder = support.tempdir()
  os.execute("chmod 777 " .. folder)
  local command = string.format("cd %s && %s%s %s >out 2>err; echo $?", folder, prefix or "",
                                AGENT, arguments)
  local pipe = io.popen(command)
  local code = tonumber(pipe:read("*l"))
  pipe:close()
  local result = { code = code, out = support.read(folder .. "/out"),
                   err = support.read(folder .. "/err"),
                   made_logs = os.execute("test -e " .. folder .. "/logs") == true }
  support.remove(folder)
  return result
end

describe("vexil-agent command line", function()
  local folder = support.tempdir()
  local function file(name, text)
    support.put(folder .. "/" .. name, text)
    return folder .. "/" .. name
  end
  local capture = file("any.pcap", "not read before the checks")
  local badLua = file("bad.lua", "return {")
  local notTable = file("number.lua", "return 5")
  local badShape = file("shape.lua", "return { packetFilterLog = {}, trafficAnalysisConfiguration = {}, " ..
                                     "probeConfigurationMap = { [9] = {} } }")
  local badXml = file("bad.xml", "<SecurityConfiguration><SSLHostConfigurations>")
  local noHosts = file("nohosts.xml", "<SecurityConfiguration/>")
  teardown(function() support.remove(folder) end)

  it("refuses each mistake with one line and exit code 2", function()
    local cases = {
      { "", "give exactly one of %-%-pcap FILE and %-%-nflog GROUP" },
      { "--frobnicate", "unknown option %-%-frobnicate" },
      { "--pcap", "%-%-pcap needs a value" },
      { "--pcap /nonexistent/x.pcap", "cannot read the capture: /nonexistent/x.pcap" },
      { "--pcap " .. capture .. " --host 10.0.0.300", "'10.0.0.300' is not an IPv4 or IPv6 address" },
      { "--pcap " .. capture .. " --duration 5", "%-%-duration is for live mode" },
      { "--nflog 70000", "a group number of 0 to 65535" },
      { "--nflog 3 --duration -1 --services tcp:22", "a positive number of seconds" },
      { "--nflog 3", "%-%-nflog needs %-%-services" },
      { "--pcap " .. capture .. " --block iptables", "%-%-block: nft or none" },
      { "--pcap " .. capture .. " --syslog tcp:loghost", "expected tcp:HOST:PORT" },
      { "--pcap " .. capture .. " --syslog file:/tmp/x", "expected unix:PATH" },
      { "--pcap " .. capture .. " --syslog udp:127.0.0.1:514 --facility nosuch", "unknown facility" },
      { "--pcap " .. capture .. " --cef", "%-%-cef needs %-%-syslog" },
      { "--pcap " .. capture .. " --ssl-keylog k.log", "%-%-ssl%-keylog needs %-%-keys" },
      { "--pcap " .. capture .. " --config " .. badLua, "bad configuration: .*bad.lua" },
      { "--pcap " .. capture .. " --config " .. notTable, "it does not return a table" },
      { "--pcap " .. capture .. " --config " .. badShape, "probe types 0 to 4" },
      { "--pcap " .. capture .. " --keys " .. badXml, "not well%-formed XML" },
      { "--pcap " .. capture .. " --keys " .. noHosts, "no readable /SecurityConfiguration/SSLHostConfigurations" },
      { "--pcap " .. capture .. " --setting novalue", "KEY=VALUE expected" },
    }
    for _, case in ipairs(cases) do
      local result = run(case[1] .. " --logs logs")
      assert.are.equal(2, result.code, case[1])
      assert.are.equal("", result.out, case[1])
      assert.is_truthy(result.err:match("vexil%-agent: [^\n]*" .. case[2] .. "[^\n]*\n$"),
                       case[1] .. " -> " .. result.err)
      assert.is_false(result.made_logs, case[1])
    end
  end)

  it("refuses live mode without the right to read NFLOG, leaving nothing behind", function()
    if os.execute("[ $(id -u) = 0 ] && command -v setpriv >/dev/null") ~= true then
      pending("needs root and setpriv to run the agent as an unprivileged user")
      return
    end
    local result = run("--nflog 3 --services tcp:22 --logs logs", "setpriv --reuid=65534 --regid=65534 --clear-groups ")
    assert.are.equal(2, result.code)
    assert.is_truthy(result.err:match("vexil%-agent: [^\n]*Operation not permitted[^\n]*\n$"), result.err)
    assert.is_false(result.made_logs)
  end)

  it("prints its usage", function()
    local help = run("--help")
    assert.are.same({ 0, "" }, { help.code, help.err })
    assert.is_truthy(help.out:find("--pcap FILE", 1, true))
  end)
end)
