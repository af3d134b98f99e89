-- The script face of the log object: loading without the binder, where the
-- log file goes by default, and opening it.
local support = require "support"

local norv = require "norv"
assert.is_true(require "vexil")

describe("vexil.LogData", function()
  local dom, log, folder

  before_each(function() folder, dom, log = support.log_object() end)
  after_each(function()
    log = nil
    support.drop_log(folder)
  end)

  it("refuses to load where no class binder was set up", function()
    local output = support.run('print(pcall(require, "vexil")); print(type(SLB))')
    assert.matches("false\t.*SLB not initialized in this interpreter\nnil\n", output)
  end)

  it("puts the log file below the base folder until told otherwise", function()
    assert.are.equal(folder .. "/Logfiles/norv_agent/norv_mpnp", log:GetLogFileFullPath())
    log:SetLogFileName("journal-é")
    log:SetLogFilePath("/x/y")
    assert.are.equal("/x/y/journal-é", log:GetLogFileFullPath())
  end)

  it("opens a new log file owner only, and leaves an existing one as it is", function()
    log:SetLogFilePath(folder .. "/a/b")
    assert.is_true(log:InitializeLogFile())
    assert.are.same({ "700", "600" }, { support.mode(folder .. "/a/b"),
                                        support.mode(folder .. "/a/b/norv_mpnp") })
    -- Open already: true without touching the disk.
    os.remove(folder .. "/a/b/norv_mpnp")
    assert.is_true(log:InitializeLogFile())
    assert.is_nil(support.mode(folder .. "/a/b/norv_mpnp"))
    os.execute("echo line > '" .. folder .. "/old' && chmod 644 '" .. folder .. "/old'")
    local other = SLB.vexil.LogData(dom)
    other:SetLogFilePath(folder)
    other:SetLogFileName("old")
    assert.is_true(other:InitializeLogFile())
    assert.are.equal("644", support.mode(folder .. "/old"))
    assert.are.same({}, dom:AgentEvents())
  end)

  it("reports a folder that cannot be made (6003), a file that cannot be opened (6001)", function()
    local file = io.open(folder .. "/plain", "w"); file:write("x"); file:close()
    log:SetLogFilePath(folder .. "/plain/logs")
    assert.is_false(log:InitializeLogFile())
    os.execute("mkdir '" .. folder .. "/norv_mpnp'")
    log:SetLogFilePath(folder)
    assert.is_false(log:InitializeLogFile())
    assert.are.same({ { number = 6003, detail = folder .. "/plain/logs" },
                      { number = 6001, detail = folder .. "/norv_mpnp" } }, dom:AgentEvents())
    -- Each event reaches the operator log; the toolkit's own error lines do not.
    assert.are.same({ "Warning: Agent event 6003: " .. folder .. "/plain/logs",
                      "Warning: Agent event 6001: " .. folder .. "/norv_mpnp" }, norv.OperatorLog())
  end)
end)
