-- The script face of the SSL key service: vexil.RSAKey.Create with its results and
-- reason constants (a token's included), and vexil.SSLCertThread started, fed
-- through the driver stand-in, reconfigured and stopped from a script.
local norv = require "norv"
assert(require "vexil" == true)
local norvi = require "norvi"
local support = require "support"

local vexil = SLB.vexil

local folder = support.tempdir()
local function path(name) return folder .. "/" .. name end
-- The tools run without the sanitizer runtime that an instrumented build
-- preloads into the interpreter.
local function sh(command)
  return os.execute("unset LD_PRELOAD; cd '" .. folder .. "' && (" .. command .. ") >/dev/null 2>&1")
end
assert(sh("openssl genrsa -out key.pem 1024"))
assert(sh("openssl req -x509 -new -key key.pem -subj /CN=spec -days 2 -out cert.pem"))
assert(sh("openssl pkcs12 -export -in cert.pem -inkey key.pem -passout pass:pw -out key.p12"))
assert(sh("base64 -w0 key.p12 > key.p12.b64"))
assert(sh("printf 'premaster-secret-of-48-bytes-0123456789abcdefghi' > secret.bin"))
assert(sh("openssl rsa -in key.pem -pubout -out key.pub && " ..
          "openssl pkeyutl -encrypt -pubin -inkey key.pub -in secret.bin -out secret.ct"))
local secret = support.read(path("secret.bin"))
local cipher = support.read(path("secret.ct"))

local function u32(n)
  return string.char(n % 256, math.floor(n / 256) % 256, math.floor(n / 65536) % 256,
                     math.floor(n / 16777216) % 256)
end

-- Submits an SSL 3.0 request for the host configuration id whose context
-- begins with tag.
local function submit(id, tag)
  norvi.SubmitSslRequest(u32(#cipher) .. u32(id) .. u32(tag) .. string.rep("c", 52) .. u32(1) ..
                         "\3\0" .. string.rep("\0", 10), cipher)
end

-- Waits (up to a few seconds) for count responses; the secrets by tag, an
-- empty string for a failure.
local function await_secrets(count)
  local secrets, seen = {}, 0
  for _ = 1, 500 do
    for _, response in ipairs(norvi.SslResponses()) do
      secrets[response:byte(9)] = response:sub(65, -9)
      seen = seen + 1
    end
    if seen >= count then break end
    os.execute("sleep 0.01")
  end
  assert.equal(count, seen)
  return secrets
end

describe("vexil.RSAKey", function()
  -- Every kind of credential and reason is covered by RSAKey_test; here only
  -- how the results reach the script, with the reason's constant.
  it("gives a key that the script owns, or nil, the reason and its name", function()
    local cases = {  -- the credential's attributes, the name of the failure
      { 'credentialType="PEM" identifier="' .. path("key.pem") .. '"' },
      { 'credentialType="P12" passphrase="pw" identifier="/nowhere" credential="' ..
        support.read(path("key.p12.b64")) .. '"' },
      { 'credentialType="PEM" identifier="' .. path("none.pem") .. '"', "UnableToOpenFile" },
      { 'credentialType="P12" identifier="' .. path("key.pem") .. '"', "UnableToLoadCredentials" },
      { 'identifier="' .. path("key.pem") .. '"', "UnsupportedCredentialType" },
    }
    for _, case in ipairs(cases) do
      local key, reason, text = vexil.RSAKey.Create("<SSLCredential " .. case[1] .. "/>")
      if case[2] then
        assert.same({ nil, vexil.RSAKey.FailureReason[case[2]], case[2] }, { key, reason, text })
      else
        assert.truthy(tostring(key):find("^vexil::RSAKey: "))
      end
    end
    collectgarbage()
    collectgarbage()
    -- Text that is no credential is reason 400.
    for _, text in ipairs { "", "<SSLCredential", "<SSLHostConfiguration id='1'/>", "not xml" } do
      assert.same({ nil, 400, "XML parsing of <SSLCredential> failed" },
                  { vexil.RSAKey.Create(text) })
    end
    assert.has_error(function() vexil.RSAKey() end)
    assert.has_error(function() vexil.RSAKey.Create({}) end)
  end)

  -- A token failure, with its constant. SoftHSM finds its token store through
  -- SOFTHSM2_CONF, which a script can't set, so a child interpreter reads the
  -- credential. The token holds a certificate but not its private key.
  local softhsm = "/usr/lib/softhsm/libsofthsm2.so"
  if not sh("command -v softhsm2-util pkcs11-tool && test -r " .. softhsm) then
    pending("SoftHSM (softhsm2-util, libsofthsm2.so) or OpenSC's pkcs11-tool is missing")
    return
  end
  it("gives a token credential's failure with its reason", function()
    local env = "export SOFTHSM2_CONF=\"$PWD/softhsm2.conf\"; "
    assert(sh(env .. "mkdir tokens && echo \"directories.tokendir = $PWD/tokens\" > softhsm2.conf" ..
              " && softhsm2-util --init-token --free --label script --so-pin 0000 --pin 3141" ..
              " && openssl x509 -in cert.pem -outform DER -out cert.der && pkcs11-tool --module " ..
              softhsm .. " --token-label script --login --pin 3141 --write-object cert.der" ..
              " --type cert --id 03 && openssl dgst -sha1 -r cert.der > cert.sha1"))
    support.put(path("create.lua"), string.format([[
require "norv"
assert(require "vexil" == true)
local dom = SLB.norv.Dom(":memory:")
dom:SetSetting("norvp.vexil.SSL.pkcs11Module", "%s")
local _, reason, text = SLB.vexil.RSAKey.Create(
  '<SSLCredential credentialType="CAPI" identifier="script;%s" passphrase="3141"/>')
print(reason, text, SLB.vexil.RSAKey.FailureReason[text])
]], softhsm, support.read(path("cert.sha1")):sub(1, 40)))
    local pipe = io.popen("cd '" .. folder .. "' && " .. env .. "lua5.2 create.lua 2>/dev/null")
    assert.equal("584\tKeyNotFound\t584\n", pipe:read("*a"))
    pipe:close()
  end)
end)

describe("vexil.SSLCertThread", function()
  local configuration = [[
<SecurityConfiguration>
  <SSLCredentials>
    <SSLCredential id="3" credentialType="PEM" identifier="%s"/>
  </SSLCredentials>
  <SSLHostConfigurations>
    <SSLHostConfiguration id="%d" sslCredentialId="3"/>
  </SSLHostConfigurations>
</SecurityConfiguration>]]

  it("serves requests between start and stop, and follows configuration changes", function()
    assert.has_error(function() vexil.SSLCertThread({}) end)
    norvi.SslResponses()
    local dom = SLB.norv.Dom(":memory:")
    dom:SetConfigXml(string.format(configuration, path("key.pem"), 7))
    local thread = vexil.SSLCertThread(dom)
    thread:start(0, true, 0)
    assert.is_true(thread:isRunning())
    submit(7, 1)
    submit(8, 2)
    assert.same({ secret, "" }, await_secrets(2))
    -- The host configuration moves to id 8: the old id fails from now on.
    dom:SetConfigXml(string.format(configuration, path("key.pem"), 8))
    thread:OnSecurityConfigurationChanged()
    submit(8, 1)
    submit(7, 2)
    assert.same({ secret, "" }, await_secrets(2))

    thread:StopThread("ssl")
    assert.is_false(thread:isRunning())
    -- Nor does a running service answer once the script has let go of it.
    vexil.SSLCertThread(dom):start(0, true, 0)
    collectgarbage()
    collectgarbage()
    submit(8, 1)
    os.execute("sleep 0.1")
    assert.same({}, norvi.SslResponses())
    norv.OperatorLog()
  end)
end)

teardown(function() support.remove(folder) end)

describe("vexil.SSLHostConfigurations.Read", function()
  it("gives the host configurations of the security configuration, or nil and why", function()
    local dom = SLB.norv.Dom(":memory:")
    assert.are.same({ nil, "no readable /SecurityConfiguration/SSLHostConfigurations in the " ..
                           "security configuration" }, { vexil.SSLHostConfigurations.Read(dom) })
    assert.is_true(dom:SetConfigXml([[<SecurityConfiguration><SSLHostConfigurations>
      <SSLHostConfiguration id="7" name="web" sslCredentialId="1" specificIP="10.1.0.1"/>
      <SSLHostConfiguration id="9" allInterfaces="true"/>
    </SSLHostConfigurations></SecurityConfiguration>]]))
    assert.are.same({
      { id = 7, name = "web", sslCredentialId = 1, specificIP = "10.1.0.1", allInterfaces = false },
      { id = 9, name = "", sslCredentialId = 0, specificIP = "", allInterfaces = true },
    }, vexil.SSLHostConfigurations.Read(dom))
    assert.has_error(function() vexil.SSLHostConfigurations.Read(5) end)
  end)
end)
