/// Small files of fixed size. A file is replaced whole: written to "<path>.tmp", renamed, sync(). Failures are logged
/// here.
#pragma once

#include <cstdint>

/// Reads the first `length` bytes. Returns 0; -1 if the file cannot be read or is shorter (buffer undefined).
int store_read(const char *path, uint8_t *buffer, uint32_t length);

/// Returns 0 once the record is durable. After -1 the file holds the old record or the new one.
int store_write(const char *path, const uint8_t *buffer, uint32_t length);
