-- Shared helpers of the Lua specs.
local support = {}

-- The output of a shell command: its first line, or all of it.
local function capture(command, format)
  local pipe = io.popen(command)
  local output = pipe:read(format)
  pipe:close()
  return output
end

function support.tempdir()
  return capture("mktemp -d /tmp/vexil-spec-XXXXXX", "*l")
end

function support.remove(path)
  os.execute("rm -rf '" .. path .. "'")
end

function support.mode(path)
  return capture("stat -c %a '" .. path .. "' 2>/dev/null", "*l")
end

function support.read(path)
  local file = io.open(path, "rb")
  if not file then return nil end
  local text = file:read("*a")
  file:close()
  return text
end

function support.lines(path)
  local lines = {}
  for line in (support.read(path) or ""):gmatch("(.-)\r\n") do lines[#lines + 1] = line end
  return lines
end

function support.put(path, text)
  local file = assert(io.open(path, "wb"))
  file:write(text)
  file:close()
end

-- The baseline tests/golden/<name> that text is to equal; with
-- VEXIL_UPDATE_GOLDEN=1 text is written as the baseline first (review the diff).
function support.golden(name, text)
  local path = (os.getenv("VEXIL_SOURCE_DIR") or ".") .. "/tests/golden/" .. name
  if os.getenv("VEXIL_UPDATE_GOLDEN") == "1" then support.put(path, text) end
  return assert(support.read(path), "no baseline " .. name)
end

-- Runs a chunk of Lua (a format string for the further arguments) in a fresh
-- lua5.2 process with the modules of this build, for at most 10 s; returns
-- its standard output.
function support.run(chunk, ...)
  if select("#", ...) > 0 then chunk = string.format(chunk, ...) end
  return capture(string.format("timeout 10 lua5.2 -e %q 2>/dev/null", chunk), "*a")
end

-- A fresh host store, with settings made before the log object, and a log
-- object whose base folder is a folder of its own: folder, dom, log.
function support.log_object(settings)
  local folder = support.tempdir()
  local dom = SLB.norv.Dom(":memory:")
  dom:SetSetting("norv.baseFolder", folder)
  for key, value in pairs(settings or {}) do dom:SetSetting(key, value) end
  local log = SLB.vexil.LogData(dom)
  require("norv").OperatorLog()
  return folder, dom, log
end

-- Collects the log object that the caller has let go of and removes its folder.
function support.drop_log(folder)
  collectgarbage()
  support.remove(folder)
end

function support.event_numbers(dom)
  local numbers = {}
  for i, event in ipairs(dom:AgentEvents()) do numbers[i] = event.number end
  return numbers
end

return support
