-- The script face of the SSL key service: vexil.RSAKey.Create with its
-- results and reason constants, and vexil.SSLCertThread started, fed through
-- the driver stand-in, reconfigured and stopped from a script.
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
    return os.execute("unset LD_PRELOAD; cd '" .. folder .. "' && (" .. command ..
                      ") >/dev/null 2>&1")
end
assert(sh("openssl genrsa -out key.pem 1024"))
assert(sh("openssl req -x509 -new -key key.pem -subj /CN=spec -days 2 -out cert.pem"))
assert(sh("openssl pkcs12 -export -in cert.pem -inkey key.pem -passout pass:pw -out key.p12"))
assert(sh("openssl pkcs8 -topk8 -in key.pem -passout pass:pw -out enc.pem"))
assert(sh("base64 -w0 key.p12 > key.p12.b64"))
assert(sh("printf 'premaster-secret-of-48-bytes-0123456789abcdefghi' > secret.bin"))
assert(sh("openssl rsa -in key.pem -pubout -out key.pub && " ..
          "openssl pkeyutl -encrypt -pubin -inkey key.pub -in secret.bin -out secret.ct"))
local secret = support.read(path("secret.bin"))
local cipher = support.read(path("secret.ct"))

local function credential(attributes)
    local text = '<SSLCredential id="1"'
    for name, value in pairs(attributes) do
        text = text .. string.format(' %s="%s"', name, value)
    end
    return text .. "/>"
end

local function u32(n)
    return string.char(n % 256, math.floor(n / 256) % 256, math.floor(n / 65536) % 256,
                       math.floor(n / 16777216) % 256)
end
local function header(preMasterLen, id, major, minor, tag)
    return u32(preMasterLen) .. u32(id) .. u32(tag) .. string.rep("c", 52) .. u32(1) ..
           string.char(major, minor) .. string.rep("\0", 10)
end
local function tagOf(response)
    local b1, b2, b3, b4 = response:byte(9, 12)
    return b1 + b2 * 256 + b3 * 65536 + b4 * 16777216
end

-- Waits (up to a few seconds) for count responses, keyed by their tag.
local function awaitResponses(count)
    local byTag, seen = {}, 0
    for _ = 1, 500 do
        for _, response in ipairs(norvi.SslResponses()) do
            byTag[tagOf(response)] = response
            seen = seen + 1
        end
        if seen >= count then break end
        os.execute("sleep 0.01")
    end
    return byTag, seen
end

describe("vexil.RSAKey", function()
    local reasons = vexil.RSAKey.FailureReason

    it("has consecutive failure reasons and no constructor", function()
        local names = { "BadIdentifierFormat", "IdentifierNotFound", "ImproperKeyUsage",
                        "IncorrectPassphrase", "KeyNotFound", "UnableToLoadCredentials",
                        "UnableToOpenContainer", "UnableToOpenFile", "UnsupportedCredentialType" }
        for index, name in ipairs(names) do
            assert.equal(579 + index, reasons[name])
        end
        assert.has_error(function() vexil.RSAKey() end)
    end)

    it("gives a key that the script owns for good credentials", function()
        local fromFile = vexil.RSAKey.Create(credential {
            credentialType = "PEM", identifier = path("key.pem") })
        assert.truthy(tostring(fromFile):find("^vexil::RSAKey: "))
        local fromBlob = vexil.RSAKey.Create(credential {
            credentialType = "P12", passphrase = "pw", identifier = "/nowhere",
            credential = support.read(path("key.p12.b64")) })
        assert.is_not_nil(fromBlob)
        local encrypted = vexil.RSAKey.Create(credential {
            credentialType = "PEM", identifier = path("enc.pem"), passphrase = "pw" })
        assert.is_not_nil(encrypted)
        fromFile, fromBlob, encrypted = nil, nil, nil
        collectgarbage()
        collectgarbage()
    end)

    it("gives nil, the reason and its name otherwise", function()
        local cases = {
            { { credentialType = "PEM", identifier = path("none.pem") }, "UnableToOpenFile" },
            { { credentialType = "PEM", identifier = path("enc.pem") }, "IncorrectPassphrase" },
            { { credentialType = "P12", identifier = path("key.p12"), passphrase = "bad" },
              "IncorrectPassphrase" },
            { { credentialType = "CAPI", identifier = "MY;00ff" }, "UnableToOpenContainer" },
            { { identifier = path("key.pem") }, "UnsupportedCredentialType" },
        }
        for _, case in ipairs(cases) do
            local key, reason, text = vexil.RSAKey.Create(credential(case[1]))
            assert.is_nil(key)
            assert.equal(reasons[case[2]], reason)
            assert.equal(case[2], text)
        end
    end)

    it("answers 400 for text that is no credential, and checks its argument", function()
        for _, text in ipairs { "", "<SSLCredential", "<SSLHostConfiguration id='1'/>",
                                "not xml at all" } do
            local key, reason, message = vexil.RSAKey.Create(text)
            assert.is_nil(key)
            assert.equal(400, reason)
            assert.equal("XML parsing of <SSLCredential> failed", message)
        end
        assert.has_error(function() vexil.RSAKey.Create() end)
        assert.has_error(function() vexil.RSAKey.Create({}) end)
    end)
end)

describe("vexil.SSLCertThread", function()
    local configuration = [[
<SecurityConfiguration>
  <SSLCredentials>
    <SSLCredential id="3" name="spec key" credentialType="PEM" identifier="%s"/>
  </SSLCredentials>
  <SSLHostConfigurations>
    <SSLHostConfiguration id="%d" name="spec host" sslCredentialId="3"/>
  </SSLHostConfigurations>
</SecurityConfiguration>]]

    it("needs a Dom and has the thread methods of its bases", function()
        assert.has_error(function() vexil.SSLCertThread() end)
        assert.has_error(function() vexil.SSLCertThread({}) end)
        local dom = SLB.norv.Dom(":memory:")
        local thread = vexil.SSLCertThread(dom)
        assert.is_false(thread:isRunning())
        assert.is_false(thread:IsAlive())
        thread:OnSecurityConfigurationChanged()
        thread:StopThread("never started")
        assert.has_error(function() thread:start(0, true) end)
    end)

    it("serves requests between start and stop, and follows configuration changes", function()
        norvi.SslResponses()
        local dom = SLB.norv.Dom(":memory:")
        dom:SetConfigXml(string.format(configuration, path("key.pem"), 7))
        local thread = vexil.SSLCertThread(dom)
        thread:start(0, true, 0)
        assert.is_true(thread:isRunning())

        norvi.SubmitSslRequest(header(#cipher, 7, 3, 0, 1), cipher)
        norvi.SubmitSslRequest(header(#cipher + 2, 7, 3, 3, 2),
                               string.char(0, #cipher) .. cipher)
        norvi.SubmitSslRequest(header(#cipher, 8, 3, 0, 3), cipher)
        local byTag, count = awaitResponses(3)
        assert.equal(3, count)
        assert.equal(secret, byTag[1]:sub(65, 64 + #secret))
        assert.equal(64 + #secret + 8, #byTag[1])
        assert.equal(secret, byTag[2]:sub(65, 64 + #secret))
        assert.equal(72, #byTag[3])

        -- The host configuration moves to id 8: the old id fails from now on.
        dom:SetConfigXml(string.format(configuration, path("key.pem"), 8))
        thread:OnSecurityConfigurationChanged()
        norvi.SubmitSslRequest(header(#cipher, 8, 3, 0, 4), cipher)
        norvi.SubmitSslRequest(header(#cipher, 7, 3, 0, 5), cipher)
        byTag, count = awaitResponses(2)
        assert.equal(2, count)
        assert.equal(secret, byTag[4]:sub(65, 64 + #secret))
        assert.equal(72, #byTag[5])

        thread:StopThread("ssl")
        assert.is_false(thread:isRunning())
        norvi.SubmitSslRequest(header(#cipher, 8, 3, 0, 6), cipher)
        os.execute("sleep 0.1")
        assert.same({}, norvi.SslResponses())
        norv.OperatorLog()
    end)

    it("stops its threads when the script lets go of a running service", function()
        norv.SetTrace("norvp.vexil.SSLCertThread")
        norv.TraceLines()
        local dom = SLB.norv.Dom(":memory:")
        local thread = vexil.SSLCertThread(dom)
        thread:start(50, true, 0)
        assert.is_true(thread:isRunning())
        thread = nil
        collectgarbage()
        collectgarbage()
        local exits = 0
        for _, line in ipairs(norv.TraceLines()) do
            if line:find("CSSLCertThread::OnExit()", 1, true) then exits = exits + 1 end
        end
        norv.SetTrace("")
        assert.equal(1, exits)
    end)
end)

teardown(function() support.remove(folder) end)
