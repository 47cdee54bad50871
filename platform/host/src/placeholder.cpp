// Removed once the host platform sources land.
