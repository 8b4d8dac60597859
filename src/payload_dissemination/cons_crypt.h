/// The cipher of DATA pieces: AES-128 in CFB mode with 128-bit feedback. The key and the initialisation vector come
/// from a fixed pass phrase, and every piece starts from the same ones. The output is as long as the input. The cipher
/// keeps payloads from being read by accident and does not prove their sender.
#pragma once

#include <cstdint>

/// Encrypts (`encrypt` 1) or decrypts (0) `length` bytes into another buffer. Returns 0, or -1 with a line in the log.
/// Any thread; calls are serialised.
int cons_crypt(uint8_t *output, const uint8_t *input, uint32_t length, int encrypt);
