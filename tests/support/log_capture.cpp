// Placeholder until it lands.
