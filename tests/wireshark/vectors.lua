-- The modules of the dissector, each alone, against known answers. Run by tshark, behind the dissector itself.

local aes = require "arvok.aes"
local json = require "arvok.json"

local count = 0

local function holds(what, found, expected)
    count = count + 1
    if found ~= expected then
        print(string.format("%s: %s instead of %s", what, tostring(found), tostring(expected)))
        os.exit(1)
    end
end

local function bytes(digits) return ByteArray.new(digits):raw() end
local function digits(text) return ByteArray.new(text, true):tohex(true) end

-- FIPS 197, appendix C.1.
holds("AES-128", digits(aes.ecb(bytes("000102030405060708090a0b0c0d0e0f"), bytes("69c4e0d86a7b0430d8cdb78070b4c55a"))),
    "00112233445566778899aabbccddeeff")

-- NIST SP 800-38A, F.1.2 and F.2.2. The latter begins with a vector other than zero, which is put in front as a block.
local key = bytes("2b7e151628aed2a6abf7158809cf4f3c")
local plain = "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51" ..
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710"
holds("AES-128-ECB", digits(aes.ecb(key, bytes("3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf" ..
    "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4"))), plain)
holds("AES-128-CBC", digits(aes.cbc(key, bytes("000102030405060708090a0b0c0d0e0f7649abac8119b246cee98e9b12e9197d" ..
    "5086cb9b507219ee95db113a917678b273bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7")):sub(17)), plain)
holds("half a block", #aes.cbc(key, string.rep("x", 40)), 32)

for _, text in ipairs { "", "1", "[]", '"a"', "{", "{}x", "{,}", '{"a"}', '{"a":}', '{"a":1,}', '{a:1}', '{"a":01}', '{"a":+1}',
    '{"a":tru}', '{"a":"\\x"}', '{"a":"\\u12"}', '{"a":"\n"}', '{"a":"}', '{"a":[1,]}', '{"a":[1 2]}', '{"a":{"b":1]}',
    '{"a":' .. string.rep("[", 100) .. string.rep("]", 100) .. "}" } do
    holds(text, json.object(text), nil)
end

local object = json.object(' { "a" : [ ] , "b":"\\u00e4\\n\\"","c":-0.5e+1,"d":null,"e":true,"f":{"g":[1,{}]},"a":2}\r\n')
holds("a first member", type(object.a), "table")
holds("a text", object.b, "\195\164\n\"")
holds("a number", object.c, -5)
holds("nothing", object.d, json.null)
holds("a truth", object.e, true)
holds("the depths", object.f.g[1], 1)
holds("100 levels", type(json.object('{"a":' .. string.rep("[", 99) .. string.rep("]", 99) .. "}")), "table")

print(count .. " vectors hold")
