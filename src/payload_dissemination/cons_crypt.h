/// The cipher of DATA pieces: AES-128 in CFB mode with 128-bit feedback, key and initialisation vector from a fixed
/// pass phrase. Every piece starts from the same key and vector; the output is as long as the input. It keeps payloads
/// from being read by accident, and proves nothing about who sent them.
#pragma once

#include <cstdint>

/// Encrypts (1) or decrypts (0) `length` bytes into another buffer. Returns 0, or -1 with a line in the log.
/// Any thread: calls are serialised.
int cons_crypt(uint8_t *output, const uint8_t *input, uint32_t length, int encrypt);
