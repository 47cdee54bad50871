// Removed once the shared test helpers land.
