-- The page on scripting, the editor annotations and luacheck's list name exactly what scripts find.

local others = -- Lua's own and this test's
  " _G _VERSION assert collectgarbage coroutine debug dofile error gcinfo getfenv getmetatable io ipairs load " ..
  "loadfile loadstring math module newproxy next os package pairs pcall print rawequal rawget rawset require select " ..
  "setfenv setmetatable string table tonumber tostring type unpack xpcall " ..
  "check raises traced ran counts references dumped_by_coroutine lua_dir docs_dir "
dofile(lua_dir .. "/init_base.lua")
dofile(lua_dir .. "/config.lua")
local known = { event_post = true, econf_str = true, econf_int = true } -- the device libraries have these
for name in pairs(_G) do
  known[name] = not others:find(" " .. name .. " ", 1, true) or nil
end

local function expect_known(where, names)
  for name in pairs(names) do check(name .. " in " .. where, true, known[name]) end
  for name in pairs(known) do check(name .. " in " .. where, names[name] ~= nil, true) end
end

local function globals_of(file)
  local globals = { stds = {}, files = {} }
  setfenv(assert(loadfile(lua_dir .. file)), globals)()
  return globals
end

local annotated = globals_of("/annotations/zelvind.lua")
annotated.stds, annotated.files = nil, nil
annotated.proc_run, annotated.run_wait = nil, nil -- they come with a plug-in
expect_known("the editor annotations", annotated)

local listed = {}
for _, names in pairs(globals_of("/zelvind.luacheckrc").stds.zelvind) do
  for _, name in ipairs(names) do listed[name] = true end
end
listed.proc_run, listed.run_wait = nil, nil
expect_known("luacheck's list", listed)

local in_headings, in_examples, inside = {}, {}, false
for line in io.lines(docs_dir .. "/scripting.md") do
  if line:find("^```") then inside = line == "```lua" end
  if line:find("^### ") then
    for name in line:gmatch("`([%w_]+)") do in_headings[name] = true end
  end
  for name in line:gmatch("[%w_]+") do in_examples[name] = in_examples[name] or inside end
end
expect_known("a heading of the page", in_headings)
for name in pairs(known) do
  check(name .. " in an example", in_examples[name], not name:find("^econf_"))
end
