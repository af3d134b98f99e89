-- Shared helpers of the Lua specs.
local support = {}

function support.tempdir()
  local pipe = io.popen("mktemp -d /tmp/vexil-spec-XXXXXX")
  local path = pipe:read("*l")
  pipe:close()
  return path
end

function support.remove(path)
  os.execute("rm -rf '" .. path .. "'")
end

function support.mode(path)
  local pipe = io.popen("stat -c %a '" .. path .. "' 2>/dev/null")
  local mode = pipe:read("*l")
  pipe:close()
  return mode
end

function support.read(path)
  local file = io.open(path, "rb")
  if not file then return nil end
  local text = file:read("*a")
  file:close()
  return text
end

function support.lines(path)
  local text = support.read(path)
  local lines = {}
  if not text then return lines end
  for line in text:gmatch("(.-)\r\n") do
    lines[#lines + 1] = line
  end
  return lines
end

-- Runs a chunk of Lua in a fresh lua5.2 process with the modules of this
-- build; returns its standard output.
function support.run(chunk)
  local command = string.format("lua5.2 -e %q 2>/dev/null", chunk)
  local pipe = io.popen(command)
  local output = pipe:read("*a")
  pipe:close()
  return output
end

function support.event_numbers(dom)
  local numbers = {}
  for i, event in ipairs(dom:AgentEvents()) do
    numbers[i] = event.number
  end
  return numbers
end

return support
