-- Settings of this device's scripts; runs before server_event.lua. A file of the same name in external_path replaces
-- this one.
config = config or {}
