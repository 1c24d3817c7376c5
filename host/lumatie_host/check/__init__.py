"""Whether this machine, a maker's library and a camera do what the module relies on."""
