-- Settings of this device's scripts; runs before server_event.lua. A file of the same name in external_path is run
-- instead of this one.
config = config or {}
