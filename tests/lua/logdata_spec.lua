-- The script face of the log object: loading, the binder's messages, the
-- defaults and accessors, and opening the log file.
local support = require "support"

describe("the vexil module", function()
  it("refuses to load where no class binder was set up", function()
    local output = support.run('print(pcall(require, "vexil")); print(type(SLB))')
    assert.matches("false\t.*SLB not initialized in this interpreter", output)
    assert.matches("\nnil\n", output)
  end)

  it("gives true, and the classes through SLB", function()
    local output = support.run('require "norv"; print(require "vexil"); ' ..
                               'print(type(SLB.vexil.LogData))')
    assert.are.equal("true\ntable\n", output)
  end)
end)

describe("vexil.LogData", function()
  local norv = require "norv"
  assert.is_true(require "vexil")
  local dom, log, folder

  before_each(function()
    folder = support.tempdir()
    dom = SLB.norv.Dom(":memory:")
    dom:SetSetting("norv.baseFolder", folder)
    log = SLB.vexil.LogData(dom)
    norv.OperatorLog()
  end)

  after_each(function()
    log = nil
    collectgarbage()
    support.remove(folder)
  end)

  it("starts with the defaults below the base folder", function()
    assert.are.equal("norv_mpnp", log:GetLogFileName())
    assert.are.equal(folder .. "/Logfiles/norv_agent", log:GetLogFilePath())
    assert.are.equal(folder .. "/Logfiles/norv_agent/norv_mpnp", log:GetLogFileFullPath())
    assert.are.equal(1024, log:GetLogFileSizeKB())
    assert.are.equal(7, log:GetNumberOfOldCopies())
  end)

  it("keeps what the setters store, without checks", function()
    log:SetLogFileSizeKB(-5)
    log:SetNumberOfOldCopies(0)
    assert.are.equal(-5, log:GetLogFileSizeKB())
    assert.are.equal(0, log:GetNumberOfOldCopies())
    log:SetLogFileName("fw.log")
    log:SetLogFilePath("/x/y")
    assert.are.equal("/x/y/fw.log", log:GetLogFileFullPath())
    -- Texts cross as UTF-8; a value that is no text becomes empty.
    log:SetLogFileName("journal-é")
    assert.are.equal("journal-é", log:GetLogFileName())
    log:SetLogFileName({})
    assert.are.equal("", log:GetLogFileName())
    assert.are.equal("/x/y/", log:GetLogFileFullPath())
  end)

  it("checks the argument count and the object of bound methods", function()
    local ok, err = pcall(log.SetLogFileName, log)
    assert.is_false(ok)
    assert.matches("Error number of arguments %(given 0 %-> expected 1%)", err)
    ok, err = pcall(log.GetLogFileSizeKB, log, 1)
    assert.matches("Error number of arguments %(given 1 %-> expected 0%)", err)
    ok, err = pcall(log.GetLogFileName, dom)
    assert.matches("Invalid object for this method", err)
    ok, err = pcall(SLB.vexil.LogData)
    assert.matches("Error number of arguments %(given 0 %-> expected 1%)", err)
    ok, err = pcall(SLB.vexil.LogData, dom, dom)
    assert.matches("Error number of arguments %(given 2 %-> expected 1%)", err)
  end)

  it("opens the log file in a new folder, owner only", function()
    log:SetLogFilePath(folder .. "/a/b")
    assert.is_true(log:InitializeLogFile())
    assert.are.equal("700", support.mode(folder .. "/a/b"))
    assert.are.equal("600", support.mode(folder .. "/a/b/norv_mpnp"))
    assert.are.same({}, dom:AgentEvents())
    -- Open already: true without touching the disk.
    os.remove(folder .. "/a/b/norv_mpnp")
    assert.is_true(log:InitializeLogFile())
    assert.is_nil(support.mode(folder .. "/a/b/norv_mpnp"))
  end)

  it("reports a folder that cannot be made as event 6003", function()
    local file = io.open(folder .. "/plain", "w"); file:write("x"); file:close()
    log:SetLogFilePath(folder .. "/plain/logs")
    assert.is_false(log:InitializeLogFile())
    assert.are.same({ { number = 6003, detail = folder .. "/plain/logs" } }, dom:AgentEvents())
  end)

  it("reports a file that cannot be opened as event 6001", function()
    log:SetLogFilePath(folder)
    os.execute("mkdir '" .. folder .. "/norv_mpnp'")
    assert.is_false(log:InitializeLogFile())
    assert.are.same({ { number = 6001, detail = folder .. "/norv_mpnp" } }, dom:AgentEvents())
  end)

  it("logs an error and leaves the names empty without a usable base folder", function()
    dom:SetSetting("norv.baseFolder", "not/absolute")
    local other = SLB.vexil.LogData(dom)
    assert.are.equal("", other:GetLogFilePath())
    assert.are.equal("", other:GetLogFileFullPath())
    local lines = norv.OperatorLog()
    assert.are.equal(1, #lines)
    assert.matches("CLoggerThread%(%): Error 0x16 from SHGetFolderPath%(%) getting System folder%.",
                   lines[1])
  end)
end)
