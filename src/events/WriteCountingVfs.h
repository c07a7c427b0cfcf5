#pragma once

// A SQLite file system that passes everything to the default one and counts the bytes
// written through it: the event store opens its connection through it, so that what the
// store costs the disk (the database file and its write-ahead journal) can be measured.
// Every other database of the process uses the default file system directly.

#include <cstdint>

namespace rovalis::sqlite {

// The name to open a connection with. The file system is registered on first use, not as
// the default, and forwards to whatever the default is when a file is opened.
const char* writeCountingVfsName();

// Bytes written through it by every connection of the process so far.
std::uint64_t bytesWrittenThroughCountingVfs();

}  // namespace rovalis::sqlite
