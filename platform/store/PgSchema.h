#pragma once

// Names of the PostgreSQL engine's own tables, channels and locks. Internal to
// the store.

#include <cstddef>

namespace store::pg {

inline constexpr const char* kDictTable = "\"calvarine#dict\"";
inline constexpr const char* kCommandTable = "\"calvarine#commands\"";
// The files that parts of a command hand back to it (see CommandParts).
inline constexpr const char* kCommandFilesTable = "\"calvarine#command_files\"";
inline constexpr const char* kChangesChannel = "calvarine_changes";
inline constexpr const char* kQueueChannel = "calvarine_queue";
inline constexpr const char* kDoneChannel = "calvarine_done";
// Every connection's schema changes (tables, triggers, functions) take this lock.
inline constexpr const char* kSchemaLock = "SELECT pg_advisory_xact_lock(7415000001)";
// PostgreSQL cuts identifiers at 63 bytes.
inline constexpr std::size_t kMaxIdentifier = 63;

} // namespace store::pg
