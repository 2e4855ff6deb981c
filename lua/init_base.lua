-- The ground that the daemon's scripts stand on. The daemon runs this file first, from the folder of its executable;
-- when that is also the script directory, it runs it once more among the others, and again at every reload. So nothing
-- here may wipe what is already there.

-- What the daemon itself calls: init() once when the base files have run, cleanup() at its end.
event_server = event_server or {}
event_server.init = event_server.init or function() end
event_server.cleanup = event_server.cleanup or function() end

-- The load of each script file that registered handlers: file name -> its main chunk. A reload runs a file as a new
-- chunk, and that is how on() sees that the handlers it knows of are those of the load before.
local loads = handler_loads or {}
handler_loads = loads

-- The script file that is being loaded: its name and its main chunk; nil and nil when none is.
local function file_at_work()
  local level = 3
  local info = debug.getinfo(level, "Sf")
  while info do
    if info.what == "main" then
      return info.source, info.func
    end
    level = level + 1
    info = debug.getinfo(level, "Sf")
  end
end

-- The name that the file being loaded gave itself with script_define, or nil.
local function module_name()
  local loading, name = pcall(get_module_name)
  if loading and name ~= "" then
    return name
  end
end

-- Removes all handlers that an earlier load of `file` registered.
local function forget(file)
  for name, handlers in pairs(_G) do
    if type(name) == "string" and name:sub(1, 3) == "es_" and type(handlers) == "table" then
      local list = handlers.list_func
      if type(list) == "table" then
        for i = #list, 1, -1 do
          if type(list[i]) == "table" and list[i].file == file then
            table.remove(list, i)
          end
        end
      end
    end
  end
end

-- on(type_name, func [, arg]): calls func(arg) for every event of that type. Called while a script file is loaded, it
-- replaces what the file registered when it was loaded before, so that a reload leaves nothing twice. The handler's tag
-- is the file's module name, or its file name.
function on(type_name, func, arg)
  if type(type_name) ~= "string" or type(func) ~= "function" then
    error("on(type_name, func [, arg]): a string and a function expected", 2)
  end
  local file, chunk = file_at_work()
  if file and loads[file] ~= chunk then
    forget(file)
    loads[file] = chunk
  end
  local name = "es_" .. type_name
  local handlers = rawget(_G, name) or {}
  handlers.list_func = handlers.list_func or {}
  rawset(_G, name, handlers)
  local tag = module_name() or (file or type_name):match("([^/@]+)$")
  table.insert(handlers.list_func, { tag, func, arg, file = file })
end
