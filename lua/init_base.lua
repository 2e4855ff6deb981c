-- What the daemon's scripts build on: handlers, timers and tasks that survive reloads and report their errors.
--
--   on(type_name, func [, arg])        func(arg) for every event of that type
--   every(interval_s, func [, arg])    func(arg) every so many seconds
--   at(hour, minute, func [, arg])     func(arg) once a day, at that local time
--   after(seconds, func [, arg])       func(arg) once, that much later
--   task(func [, arg])                 func(arg) as a coroutine, which waits with cr_yield(ms)
--   wait_event(type_name [, seconds [, match]])   in a task: waits for an event and returns its fields
--   finally(func)                      in a task: func() when it ends
--   fields()                           the fields of the event being handled, as a table
--
-- The first five return a handle h, with h:cancel() and h:active().
--
-- A reload runs the script files again on the same Lua state. What they registered before would stay beside what they
-- register now. So everything registered here belongs to a module (the name given to script_define, or else the name of
-- the file) and to a round: one load of the script directories. When the first file of a round calls script_define or
-- registers something, the handlers, timers and tasks of former rounds are gone. What config.lua and server_event.lua
-- register belongs to no round and stays: the daemon runs these files only once.
--
-- The daemon runs this file first, from the folder of its executable. If that is the script directory too, the daemon
-- runs it again with the others, and at every reload; it does nothing then.
if package.loaded.init_base then
  return
end
package.loaded.init_base = newproxy(true)

-- What the daemon itself calls: init() once, after the base files have run, and cleanup() when it ends.
event_server = event_server or {}
event_server.init = event_server.init or function() end
event_server.cleanup = event_server.cleanup or function() end

local engine = require("zelvind.engine")

---- Errors ------------------------------------------------------------------------------------------------------------

local kMostErrors = 20 -- of a module that are told apart: a text with data of an event could differ each time

local failing = {} -- name of a module -> its recent errors: first line -> number of times since it was written
local is_counting = false

-- Writes how often each error has come again, and forgets the errors that have not.
local function write_counts()
  for name, errors in pairs(failing) do
    for line, count in pairs(errors) do
      if count > 0 then
        trace(1, line .. " (" .. count .. " more within a minute)")
      end
      errors[line] = count > 0 and 0 or nil
    end
    if not next(errors) then
      failing[name] = nil
    end
  end
end

getmetatable(package.loaded.init_base).__gc = write_counts -- when the Lua state is closed

local function count_errors()
  write_counts()
  if not next(failing) then
    is_counting = false
    tmr_delete()
  end
end

-- Writes the lines of a traceback. An error that repeats is written once, and then counted in one line a minute.
local function report(module, what, text)
  engine.failed(module.name, text)
  text = (module.name .. ": " .. what .. " failed: " .. text):gsub("\t", "  ")
  local first = text:match("^[^\n]*"):sub(1, 500)
  local errors, different = failing[module.name] or {}, 0
  for _ in pairs(errors) do
    different = different + 1
  end
  if different >= kMostErrors and not errors[first] then
    first = module.name .. ": errors of other kinds"
    errors[first] = errors[first] or 0
  end
  if errors[first] then
    errors[first] = errors[first] + 1
    return
  end
  is_counting = is_counting or pcall(engine.add_timer, count_errors, 60, timer_time(), module.name, 0)
  if is_counting then
    failing[module.name] = errors
    errors[first] = 0
  end
  for line in text:gmatch("[^\n]+") do
    trace(1, line)
  end
end

-- A value as text, without its address, which would make each error different.
local function plain_text(value)
  if type(value) == "string" then
    return (string.format("%q", value:sub(1, 100)):gsub("\\\n", "\\n"))
  end
  return (type(value) == "number" or type(value) == "boolean") and tostring(value) or "(" .. type(value) .. ")"
end

-- The fields of a small table, such as { code = 5, message = "gone" }; nil for others.
local function table_text(value)
  local parts = {}
  for name, field in next, value do
    parts[#parts + 1] = plain_text(name):gsub('^"([%w_]+)"$', "%1") .. " = " .. plain_text(field)
    if #parts > 8 then
      return nil
    end
  end
  table.sort(parts)
  return parts[1] and "{ " .. table.concat(parts, ", ") .. " }"
end

local function error_text(value)
  if type(value) == "string" or type(value) == "number" then
    return tostring(value)
  end
  local meta = getmetatable(value)
  local done, text = pcall(tostring, value)
  local has_text = done and type(meta) == "table" and rawget(meta, "__tostring") and type(text) == "string"
  text = has_text and text or type(value) == "table" and table_text(value)
  return text or "(the error value is a " .. type(value) .. ")"
end

local function traceback(value)
  return debug.traceback(error_text(value), 2)
end

---- Modules -----------------------------------------------------------------------------------------------------------

local round = 0    -- the number of the load that has registered something last; 0 before the first one
local modules = {} -- of this round, by tag
local former = {}  -- of the round before
local files = {}   -- source of a file -> the module of its last load
local running      -- the module whose handler, timer or task runs

local function is_former(module)
  return module.round ~= 0 and module.round ~= round -- modules of base files have 0
end

-- Returns a function that runs func(arg) for the module and reports its error.
local function protected(module, what, func, arg)
  local function call()
    func(arg)
  end
  return function()
    local outer = running
    running = module
    local done, text = xpcall(call, traceback)
    running = outer
    if not done then -- the part of the traceback below xpcall and its `call` is of no use
      report(module, what, text:match("^(.*)\n[^\n]*\n[^\n]*in function 'xpcall'") or text)
    end
  end
end

---- Handlers ----------------------------------------------------------------------------------------------------------

local owners = setmetatable({}, { __mode = "k" }) -- handler entry made by on() -> its module
local untidy = {} -- names of handler tables that are empty or hold cancelled entries

-- The list may have a metatable of a script's own.
local function sweep_list(name, list, is_old)
  local kept, count = 0, #list
  for i = 1, count do
    local entry = rawget(list, i)
    if type(entry) ~= "table" or not is_old(entry, rawget(entry, 1)) then
      kept = kept + 1
      if kept ~= i then
        rawset(list, kept, entry)
      end
    else
      owners[entry] = nil
    end
  end
  for i = kept + 1, count do
    rawset(list, i, nil)
  end
  untidy[name] = untidy[name] or kept == 0 or nil
end

-- Removes the handler entries for which is_old(entry, tag) is true from all lists.
local function sweep(is_old)
  for name, handlers in pairs(_G) do
    if type(name) == "string" and name:find("^es_") and type(handlers) == "table" then
      local list = rawget(handlers, "list_func")
      if type(list) == "table" then
        sweep_list(name, list, is_old)
      end
    end
  end
end

-- Entries that scripts add to a list_func by hand, with their module's name as the tag, are swept too. The hard case is
-- the first file of a round: an entry with its tag may be left from the former round, or the file may have just added
-- it. So entries are marked as seen when a later module begins, or when the loop runs; a seen entry is old. Only
-- `adding`, the last module of a load, can have old entries that are not seen. They count as old, unless this module
-- adds its entries before its script_define each time.
local seen = setmetatable({}, { __mode = "k" })
local adding

local function see_all()
  sweep(function(entry) seen[entry] = true end)
  adding = nil
end

local function nothing() end

local function is_cancelled(entry)
  return rawget(entry, 2) == nothing
end

-- A list may not shrink while the daemon walks it, and a file that is being loaded may have just prepared an empty one.
-- So both wait for the loop, which runs this before the next event.
local is_planned = false
local function tidy_up()
  is_planned = false
  if adding then
    see_all()
  end
  local names = untidy
  untidy = {}
  for name in pairs(names) do
    local handlers = rawget(_G, name)
    local list = type(handlers) == "table" and rawget(handlers, "list_func")
    if type(list) == "table" then
      sweep_list(name, list, is_cancelled)
      if #list == 0 and rawget(handlers, "made_by_on") then
        rawset(_G, name, nil) -- so that the daemon reports this type as unknown again
      end
    end
  end
end

local function plan_tidying_up()
  is_planned = is_planned or pcall(engine.add_alarm, tidy_up, 0, 0, "init_base.lua", 0)
end

local Handler = {}
Handler.__index = Handler

function Handler:cancel()
  local entry = self.entry
  if owners[entry] then
    owners[entry] = nil
    entry[2], entry[3] = nothing, nil
    untidy[self.name] = true
    plan_tidying_up()
  end
end

function Handler:active()
  return owners[self.entry] ~= nil
end

local function add_handler(module, type_name, call, arg)
  local name = "es_" .. type_name
  local handlers = rawget(_G, name)
  if handlers == nil then
    handlers = { list_func = {}, made_by_on = true }
    rawset(_G, name, handlers)
  elseif type(handlers) ~= "table" then
    error(name .. " is a " .. type(handlers) .. ", not a table", 3)
  end
  handlers.list_func = handlers.list_func or {}
  if type(handlers.list_func) ~= "table" then
    error(name .. ".list_func is a " .. type(handlers.list_func) .. ", not a table", 3)
  end
  local entry = { module.name, call, arg }
  owners[entry] = module
  table.insert(handlers.list_func, entry)
  return setmetatable({ name = name, entry = entry }, Handler)
end

---- Timers ------------------------------------------------------------------------------------------------------------

local Timer = {}
Timer.__index = Timer

function Timer:cancel()
  engine.remove_timer(self.number)
end

function Timer:active()
  return engine.has_timer(self.number)
end

-- Of what pcall returns for a new one: its handle; or nil and the error.
local function timer_handle(added, number)
  return added and setmetatable({ number = number }, Timer) or nil, number
end

-- Calls call() at multiples of `interval` s since 1970 (UTC).
local function add_timer(module, call, interval)
  return timer_handle(pcall(engine.add_timer, call, interval, 0, module.name, module.round))
end

-- Calls call() in `delay` s, and again every `interval` s unless that is 0. No step of the clock moves it.
local function add_alarm(module, call, delay, interval)
  return timer_handle(pcall(engine.add_alarm, call, delay, interval, module.name, module.round))
end

---- Tasks -------------------------------------------------------------------------------------------------------------

local tasks = {} -- those that have not ended, as keys
local at_work    -- the task whose function runs

local Task = {}
Task.__index = Task

local function stop_waiting(self)
  for i, handle in pairs(self.waits) do
    handle:cancel()
    self.waits[i] = nil
  end
  self.waiting = nil
end

local function finish(self)
  tasks[self] = nil
  stop_waiting(self)
  local finals = self.finals
  self.thread, self.finals = nil, nil
  for i = #finals, 1, -1 do
    protected(self.module, "finally of a task", finals[i])()
  end
end

-- Runs the task's function up to its next wait or its end.
local function step(self, ...)
  local outer, outer_task = running, at_work
  running, at_work = self.module, self
  local done, value = coroutine.resume(self.thread, ...)
  running, at_work = outer, outer_task
  if not done then
    report(self.module, "task", debug.traceback(self.thread, error_text(value)))
  elseif value == nil or value ~= self.waiting then -- a wait_event that failed, inside pcall, wakes it no more
    stop_waiting(self)
  end
  if self.is_cancelled or coroutine.status(self.thread) == "dead" then
    finish(self)
  end
end

-- A task that is at work goes on up to its next wait.
function Task:cancel()
  if not tasks[self] then
    return
  elseif coroutine.status(self.thread) == "suspended" then
    engine.remove_coroutine(self.number)
    finish(self)
  else
    self.is_cancelled = true
  end
end

function Task:active()
  return tasks[self] ~= nil and not self.is_cancelled
end

local is_ending_tasks = false

local function end_former_tasks()
  local old = {}
  for task in pairs(tasks) do
    if is_former(task.module) then
      old[#old + 1] = task
    end
  end
  table.sort(old, function(a, b) return a.number < b.number end)
  is_ending_tasks = true
  for _, task in ipairs(old) do
    task:cancel()
  end
  is_ending_tasks = false
end

---- Rounds ------------------------------------------------------------------------------------------------------------

local function begin_round(first_name)
  write_counts()
  failing = {}
  round = engine.load_round()
  former, modules = modules, {}
  sweep(function(entry, tag)
    local owner, module = owners[entry], former[tag]
    if owner then
      return is_former(owner)
    elseif module and tag == first_name and not seen[entry] then
      return module == adding and not module.fills_first
    end
    return module ~= nil
  end)
  engine.remove_former_timers()
  end_former_tasks()
  plan_tidying_up()
end

local function begin_module(name)
  if not modules[name] then
    local fills_first = false
    sweep(function(entry, tag)
      fills_first = fills_first or (tag == name and not owners[entry] and not seen[entry])
    end)
    modules[name] = { name = name, round = round, fills_first = fills_first, looks = {} }
  end
  see_all()
  adding = modules[name]
end

-- The source of the lowest function on the stack for which fits(info) holds. A coroutine sees its own stack only.
local function lowest_source(fits)
  local source
  local level = 2
  local info = debug.getinfo(level, "S")
  while info do
    if fits(info) then
      source = info.source
    end
    level = level + 1
    info = debug.getinfo(level, "S")
  end
  return source
end

local function is_being_loaded(info)
  return info.what == "main" and info.source:find("^@")
end

local function has_module(info)
  return files[info.source]
end

-- Wraps the daemon's script_define: so this file learns which script file is being loaded.
local daemon_define = script_define
function script_define(name, ...)
  local done, message = pcall(daemon_define, name, ...)
  if not done then
    error((message:gsub("'%?'", "'script_define'")), 2)
  end
  name = get_module_name()
  if round ~= engine.load_round() then
    begin_round(name)
  end
  begin_module(name)
  files[lowest_source(is_being_loaded) or ""] = modules[name]
end

-- The module that registers `func`: the one being loaded, or else the one that runs. In a function that was not
-- registered here, it is the module of that function's file, as last loaded. A file without a known module counts as a
-- base file.
local function module_at_work(func)
  if is_ending_tasks then
    error("a task that a reload ends cannot register anything", 3)
  end
  local loading, name = pcall(get_module_name)
  local source = lowest_source(is_being_loaded) or debug.getinfo(func, "S").source
  local file_name = source:match("([^/@]+)$") or source
  if loading and name == "" then
    script_define(file_name)
    name = get_module_name()
  end
  return loading and modules[name] or running or files[lowest_source(has_module) or source]
    or { name = file_name, round = 0, looks = {} }
end

---- For scripts -------------------------------------------------------------------------------------------------------

local function is_whole(number, least, most)
  return type(number) == "number" and number >= least and number <= most and number % 1 == 0
end

local function is_time(seconds, least)
  return type(seconds) == "number" and seconds >= least and seconds <= 2147483647
end

-- Calls func(arg) for every event of the type.
function on(type_name, func, arg)
  if type(type_name) ~= "string" or type(func) ~= "function" then
    error("on(type_name, func [, arg]): a string and a function expected", 2)
  end
  local wrong = engine.wrong_event_name(type_name)
  if wrong then
    error("on(type_name, func [, arg]): " .. wrong, 2)
  end
  local module = module_at_work(func)
  local handle = add_handler(module, type_name, protected(module, "handler of " .. type_name, func, arg), arg)
  return handle
end

-- Calls func(arg) every `interval` s: whole seconds at multiples of that time since 1970 (UTC), so that a reload shifts
-- nothing; fractions from now on. In func, tmr_delete() ends it.
function every(interval, func, arg)
  if not is_time(interval, 0.01) or type(func) ~= "function" then
    error("every(interval_s, func [, arg]): 0.01 s or more and a function expected", 2)
  end
  local module = module_at_work(func)
  local call = protected(module, "timer of " .. interval .. " s", func, arg)
  local handle, message
  if interval % 1 == 0 then
    handle, message = add_timer(module, call, interval)
  else
    handle, message = add_alarm(module, call, interval, interval)
  end
  return handle or error(message, 2)
end

-- Calls func(arg) once, in that many seconds.
function after(seconds, func, arg)
  if not is_time(seconds, 0) or type(func) ~= "function" then
    error("after(seconds, func [, arg]): 0 s or more and a function expected", 2)
  end
  local module = module_at_work(func)
  local call = protected(module, "timer after " .. seconds .. " s", func, arg)
  local handle, message = add_alarm(module, call, seconds, 0)
  return handle or error(message, 2)
end

-- A number for each minute of local time. It grows from day to day, though not always by the same step.
local function local_minute(time)
  local date = os.date("*t", time)
  return (date.year * 366 + date.yday) * 1440 + date.hour * 60 + date.min
end

local kLongestLeap = 3600 -- s; a longer leap means that the clock was set: no time has passed

-- Whether the minute of the day lies after `from` and not after `to`, on the day of either.
local function is_between(from, minute_of_day, to)
  local due = to - to % 1440 + minute_of_day
  if due > to then
    due = from - from % 1440 + minute_of_day
  end
  return from < due and due <= to
end

-- The last look of an `at` for that minute of the day: its time, and the latest local minute that was looked at. A load
-- goes on from the former load's look: where that one has not run func yet, because the reload came in that very minute
-- or the device was busy, this one does.
local function first_look(module, minute_of_day)
  local before = former[module.name]
  local look = module.looks[minute_of_day] or before and before.looks[minute_of_day]
  local time = os.time() -- timer_time() has 32 bits, which end in 2038
  if look and time >= look.time and time - look.time <= kLongestLeap then
    return look
  end
  return { time = time, minute = local_minute(time) }
end

-- Calls func(arg) once a day in local time. Each minute it checks whether local time has passed that point since the
-- last check. So when local time leaps over that point, func is called after the leap; when local time falls back, the
-- second time does not count. When the clock itself is set, back or ahead by more than an hour, nothing has passed.
-- In func, tmr_delete() ends it.
function at(hour, minute, func, arg)
  if not is_whole(hour, 0, 23) or not is_whole(minute, 0, 59) or type(func) ~= "function" then
    error("at(hour, minute, func [, arg]): 0 to 23, 0 to 59 and a function expected", 2)
  end
  local module = module_at_work(func)
  local call = protected(module, string.format("timer of %02d:%02d", hour, minute), func, arg)
  local minute_of_day = hour * 60 + minute
  local looked = first_look(module, minute_of_day)
  module.looks[minute_of_day] = looked
  local handle, message = add_timer(module, function()
    local time = os.time()
    local now, from = local_minute(time), looked.minute
    local clock_was_set = time < looked.time or time - looked.time > kLongestLeap
    looked = { time = time, minute = clock_was_set and now or math.max(from, now) }
    module.looks[minute_of_day] = looked
    if not clock_was_set and is_between(from, minute_of_day, now) then
      call()
    end
  end, 60)
  return handle or error(message, 2)
end

-- Runs func(arg) as a coroutine: at once and up to its first cr_yield(ms), then on whenever that time has passed and no
-- event waits. An error ends it and is reported; in a coroutine of cr_add it would be lost. func runs in a coroutine
-- inside the daemon's coroutine, because Lua 5.1 cannot yield across xpcall.
function task(func, arg)
  local created, thread = pcall(coroutine.create, func)
  if not created then
    error("task(func [, arg]): a Lua function expected", 2)
  end
  local module = module_at_work(func)
  local self = setmetatable({ module = module, thread = thread, waits = {}, finals = {} }, Task)
  tasks[self] = true
  local added, number = pcall(engine.add_coroutine, function()
    step(self, arg)
    while self.thread do
      coroutine.yield() -- func's cr_yield has told the daemon for how long
      step(self)
      if self.thread and engine.asked_wait() == 0 then -- the daemon resumes it no more
        finish(self)
      end
    end
  end, module.name)
  if not added then
    tasks[self] = nil
    error(number, 2)
  end
  self.number = number
  if not tasks[self] then -- it has ended
    engine.remove_coroutine(number)
  end
  return self
end

-- The fields of the event being handled: name -> text. Of equal names the first counts, as for evt_field_str.
function fields()
  local known, info = pcall(evt_info)
  if not known then
    error(info, 2)
  end
  local found = {}
  for item in info:gmatch("[^&]+") do
    local name, value = item:match("^([^=]*)=(.*)$")
    if name and not found[name] then
      found[name] = value
    end
  end
  return found
end

---- For tasks ---------------------------------------------------------------------------------------------------------

local function task_at_work(name)
  if not at_work or coroutine.running() ~= at_work.thread then
    error(name .. " outside a task", 3)
  end
  return at_work
end

-- Calls func() when the task returns, fails or is cancelled, or a reload ends it. What was given last is called first.
function finally(func)
  local self = task_at_work("finally")
  if type(func) ~= "function" then
    error("finally(func): a function expected", 2)
  end
  table.insert(self.finals, func)
end

local event_fields, yield = fields, coroutine.yield
local kLongestYield = 2147483647 -- ms

-- The texts of the values, as post writes them.
local function texts_of(match)
  local texts = {}
  for name, value in pairs(match) do
    texts[name] = type(value) == "number" and engine.number_text(value) or tostring(value)
  end
  return texts
end

-- Waits for an event of the type whose fields include those of `match`. Returns its fields; or nil and "timeout" when
-- that many seconds are over. The task goes on while the event is dispatched, so that it cannot miss the next one.
function wait_event(type_name, seconds, match)
  if type(type_name) ~= "string" or not (seconds == nil or is_time(seconds, 0))
      or not (match == nil or type(match) == "table") then
    error("wait_event(type_name [, seconds [, match]]): a string, 0 s or more and a table expected", 2)
  end
  local wrong = engine.wrong_event_name(type_name)
  if wrong then
    error("wait_event(type_name [, seconds [, match]]): " .. wrong, 2)
  end
  local self = task_at_work("wait_event")
  local texts = texts_of(match or {})
  stop_waiting(self)
  local found, is_over
  local token = {} -- what the task yields in this wait, and nowhere else
  self.waiting = token
  self.waits.handler = add_handler(self.module, type_name, function()
    local event = event_fields()
    for name, text in pairs(texts) do
      if event[name] ~= text then
        return
      end
    end
    found = event
    engine.wake_coroutine(self.number)
  end)
  if seconds then
    local timer, message = add_alarm(self.module, function()
      is_over = true
      engine.wake_coroutine(self.number)
    end, seconds, 0)
    if not timer then
      stop_waiting(self)
      error(message, 2)
    end
    self.waits.timer = timer
  end
  repeat
    engine.ask_wait(kLongestYield)
    yield(token)
  until found or is_over
  stop_waiting(self)
  if found then
    return found
  end
  return nil, "timeout"
end
