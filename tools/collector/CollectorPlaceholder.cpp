// Replaced by the collection service's sources.
