-- vexil.RSAKey.Create with "CAPI" credentials held by a SoftHSM token made
-- in a temporary folder. SoftHSM finds its token store through SOFTHSM2_CONF,
-- which a script can't set, so the keys are made in a child interpreter.
local support = require "support"

local softhsm = "/usr/lib/softhsm/libsofthsm2.so"
local pin = "script-pin-3141"

-- The child: one line per pair of arguments (identifier, PIN), "key" or the
-- reason and its name, which must name the reason's constant.
local child = [[
require "norv"
assert(require "vexil" == true)
local dom = SLB.norv.Dom(":memory:")
dom:SetSetting("norvp.vexil.SSL.pkcs11Module", "%s")
for i = 1, #arg, 2 do
  local key, reason, text = SLB.vexil.RSAKey.Create(string.format(
    '<SSLCredential credentialType="CAPI" identifier="%%s" passphrase="%%s"/>', arg[i], arg[i + 1]))
  assert(key or SLB.vexil.RSAKey.FailureReason[text] == reason)
  print(key and "key" or reason .. " " .. text)
end
]]

describe("vexil.RSAKey.Create with a token credential", function()
  if not os.execute("command -v softhsm2-util pkcs11-tool >/dev/null 2>&1 && test -r " ..
                    softhsm) then
    pending("SoftHSM (softhsm2-util, libsofthsm2.so) or OpenSC's pkcs11-tool is missing")
    return
  end
  local folder = support.tempdir()
  local env = "export SOFTHSM2_CONF='" .. folder .. "/softhsm2.conf'; cd '" .. folder .. "' && "
  -- The tools run without the sanitizer runtime that an instrumented build
  -- preloads into the interpreter.
  local function sh(command)
    return os.execute("unset LD_PRELOAD; " .. env .. "(" .. command .. ") >/dev/null 2>&1")
  end
  teardown(function() support.remove(folder) end)

  it("gives the key, or the reason of the first check that fails", function()
    local tool = "pkcs11-tool --module " .. softhsm .. " --token-label script --login --pin " .. pin
    assert(sh("mkdir tokens && echo \"directories.tokendir = $PWD/tokens\" > softhsm2.conf"))
    assert(sh("softhsm2-util --init-token --free --label script --so-pin so-0000 --pin " .. pin))
    assert(sh("openssl genrsa -out key.pem 1024 && " ..
              "openssl pkcs8 -topk8 -nocrypt -in key.pem -out key.p8"))
    assert(sh("softhsm2-util --import key.p8 --token script --label k --id 01 --pin " .. pin))
    local thumbprints = {}
    for _, cert in ipairs { { "enc", "01", "-addext keyUsage=keyEncipherment" },
                            { "sign", "02", "-addext keyUsage=digitalSignature" },
                            { "plain", "03", "" } } do  -- no key usage, no private key
      assert(sh(string.format("openssl req -x509 -new -key key.pem -subj /CN=script -days 2 %s " ..
                              "-outform DER -out %s.der && %s --write-object %s.der --type cert " ..
                              "--id %s && openssl dgst -sha1 -r %s.der > %s.sha1",
                              cert[3], cert[1], tool, cert[1], cert[2], cert[1], cert[1])))
      thumbprints[cert[1]] = support.read(folder .. "/" .. cert[1] .. ".sha1"):sub(1, 40)
    end
    local script = io.open(folder .. "/create.lua", "w")
    script:write(string.format(child, softhsm))
    script:close()

    local cases = {  -- identifier, PIN, result
      { "script;" .. thumbprints.enc, pin, "key" },
      { ";" .. thumbprints.enc, pin, "580 BadIdentifierFormat" },
      { "other;" .. thumbprints.enc, pin, "586 UnableToOpenContainer" },
      { "script;" .. string.rep("0", 40), "wrong", "581 IdentifierNotFound" },
      { "script;" .. thumbprints.sign, "wrong", "582 ImproperKeyUsage" },
      { "script;" .. thumbprints.plain, "wrong", "583 IncorrectPassphrase" },
      { "script;" .. thumbprints.plain, pin, "584 KeyNotFound" },
    }
    local command, expected = env .. "lua5.2 create.lua", {}
    for i, case in ipairs(cases) do
      command = command .. string.format(" '%s' '%s'", case[1], case[2])
      expected[i] = case[3]
    end
    local got, pipe = {}, io.popen(command .. " 2>/dev/null")
    for line in pipe:lines() do got[#got + 1] = line end
    pipe:close()
    assert.same(expected, got)
  end)
end)
