-- A small JSON writer for the agent's summary. Tables marked with
-- json.array() are arrays (also when empty); other tables are objects with
-- their keys sorted, so that the output is stable.
local json = {}

local ARRAY = {}

function json.array(items)
  return setmetatable(items or {}, ARRAY)
end

local ESCAPES = { ['"'] = '\\"', ["\\"] = "\\\\", ["\b"] = "\\b", ["\f"] = "\\f",
                  ["\n"] = "\\n", ["\r"] = "\\r", ["\t"] = "\\t" }

local function quote(text)
  return '"' .. text:gsub('[%c"\\]', function(c)
    return ESCAPES[c] or string.format("\\u%04x", c:byte())
  end) .. '"'
end

function json.encode(value)
  local kind = type(value)
  if kind == "string" then
    return quote(value)
  elseif kind == "number" then
    if value ~= value or value == math.huge or value == -math.huge then return "null" end
    if value % 1 == 0 and math.abs(value) < 2 ^ 53 then return string.format("%d", value) end
    return string.format("%.17g", value)
  elseif kind == "boolean" then
    return tostring(value)
  elseif kind == "nil" then
    return "null"
  elseif kind == "table" then
    local parts = {}
    if getmetatable(value) == ARRAY then
      for i = 1, #value do parts[i] = json.encode(value[i]) end
      return "[" .. table.concat(parts, ",") .. "]"
    end
    local keys = {}
    for key in pairs(value) do keys[#keys + 1] = tostring(key) end
    table.sort(keys)
    for i, key in ipairs(keys) do
      local item = value[key]
      if item == nil then item = value[tonumber(key)] end
      parts[i] = quote(key) .. ":" .. json.encode(item)
    end
    return "{" .. table.concat(parts, ",") .. "}"
  end
  error("cannot write a " .. kind .. " as JSON")
end

return json
